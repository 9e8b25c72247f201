#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/platformd/kernel/Beneath.h"

namespace qx::kernel {

/// Which placeholders have a mark that keeps their inode in memory. That costs the kernel about 1.5
/// KiB each, so that a user has a bound. Any thread may use it.
class PinnedInodes {
 public:
  /// What one user may have unless the administrator says otherwise: 12 MiB.
  static constexpr std::size_t usual = 8192;

  explicit PinnedInodes(std::size_t mostOfOneUser) : mostOfOneUser_(mostOfOneUser) {}

  /// Returns whether this placeholder is one of those that the bound leaves room for.
  bool take(const FileHandle& file, uid_t user) {
    const std::lock_guard lock(mutex_);
    const auto key = keyOf(file);
    const auto [known, isNew] = users_.try_emplace(key, user);
    if (!isNew) return true;
    auto& count = counts_[user];
    if (count < mostOfOneUser_) {
      ++count;
      return true;
    }
    users_.erase(known);
    refused_.resize(bits / 64);
    eachBit(key, [this](std::size_t bit) { refused_[bit / 64] |= std::uint64_t{1} << bit % 64; });
    return false;
  }

  /// It is no placeholder any more, or is gone.
  void giveBack(const FileHandle& file) {
    const std::lock_guard lock(mutex_);
    const auto known = users_.find(keyOf(file));
    if (known == users_.end()) return;
    --counts_[known->second];
    users_.erase(known);
  }

  /// Returns whether there was no room for that file once. It says so of one in two hundred other
  /// files as well when a million were refused, since it keeps 2 MiB whatever their number.
  bool hasRefused(const FileHandle& file) const {
    const std::lock_guard lock(mutex_);
    if (refused_.empty()) return false;
    bool all = true;
    eachBit(keyOf(file), [&](std::size_t bit) { all &= refused_[bit / 64] >> bit % 64 & 1U; });
    return all;
  }

 private:
  static constexpr std::size_t bits = std::size_t{1} << 24U;

  /// Two files with the same key count as one, which does no harm.
  static std::uint64_t keyOf(const FileHandle& file) {
    return std::hash<std::string>()(file.bytes);
  }
  /// The three bits of a key.
  template <class Take>
  static void eachBit(std::uint64_t key, Take take) {
    for (unsigned shift : {0U, 20U, 40U}) take((key >> shift) % bits);
  }

  const std::size_t mostOfOneUser_;
  mutable std::mutex mutex_;
  std::unordered_map<std::uint64_t, uid_t> users_;
  std::map<uid_t, std::size_t> counts_;
  std::vector<std::uint64_t> refused_;  // a Bloom filter
};

}  // namespace qx::kernel
