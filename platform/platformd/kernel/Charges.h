#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>

namespace qx::kernel {

/// What the programs of each user make the service hold: one unit for every access that waits (an
/// event in two processes, and the process that is watched for its end), and one for every document
/// that is waited for (a descriptor, and what the provider has been asked). Past the bound that
/// user's readers are told to try again, and nobody else notices: the bounds of all users who may
/// be logged in at a time are together below the descriptors that the service has. Used by one
/// thread at a time.
class Charges {
 public:
  static constexpr std::size_t bound = 1024;

  /// Charges one unit. Returns false past the bound, and charges nothing.
  bool take(uid_t user) {
    auto& held = held_[user];
    if (held >= bound) return false;
    ++held;
    return true;
  }
  void giveBack(uid_t user) {
    const auto held = held_.find(user);
    if (held != held_.end() && --held->second == 0) held_.erase(held);
  }

 private:
  std::map<uid_t, std::size_t> held_;
};

}  // namespace qx::kernel
