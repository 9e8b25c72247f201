#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <mutex>
#include <unordered_map>

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
    const auto [known, isNew] = users_.try_emplace(keyOf(file), user);
    if (!isNew) return true;
    auto& count = counts_[user];
    if (count < mostOfOneUser_) {
      ++count;
      return true;
    }
    users_.erase(known);
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

 private:
  /// Two files with the same key count as one, which does no harm.
  static std::size_t keyOf(const FileHandle& file) { return std::hash<std::string>()(file.bytes); }

  const std::size_t mostOfOneUser_;
  std::mutex mutex_;
  std::unordered_map<std::size_t, uid_t> users_;
  std::map<uid_t, std::size_t> counts_;
};

}  // namespace qx::kernel
