#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/FileDescriptor.h"

namespace qx {

/// One inotify instance (inotify(7)) and the watches in it. Any thread may add watches and let go
/// of them, also while the file system holds up another that adds one. Its owner makes sure that
/// one thread at a time reads.
class Inotify {
 public:
  /// One claim on a watched directory. The kernel has one watch for each inode, so claims are
  /// counted, and the last one to go removes the watch. It must not outlive its Inotify.
  class Watch {
   public:
    Watch() = default;
    Watch(Watch&& other) noexcept
        : owner_(std::exchange(other.owner_, nullptr)), number_(std::exchange(other.number_, -1)) {}
    Watch& operator=(Watch&& other) noexcept {
      std::swap(owner_, other.owner_);
      std::swap(number_, other.number_);
      return *this;
    }
    ~Watch() {
      if (owner_) owner_->release(number_);
    }

    /// The number of the watch; -1 when there is none. Numbers are never used again.
    int number() const { return number_; }
    explicit operator bool() const { return number_ >= 0; }

   private:
    friend class Inotify;
    Watch(Inotify* owner, int number) : owner_(owner), number_(number) {}
    Inotify* owner_ = nullptr;
    int number_ = -1;
  };

  struct Event {
    int watch;
    std::uint32_t mask;
    /// The same for both halves of a move.
    std::uint32_t cookie;
    /// Empty when the event concerns the watched directory itself.
    std::string name;

    /// Returns whether events were lost; then nothing that was watched is known for certain any
    /// more.
    bool isOverflow() const;
  };

  /// Whether files that were removed are heard of while somebody has them open, under the names
  /// that they had last.
  enum class Removed { ignored, reported };

  explicit Inotify(Removed removed = Removed::ignored);

  /// The descriptor; -1 when the kernel had no instance to give.
  int descriptor() const { return descriptor_.get(); }

  /// Watches a directory; empty, with errno set, when that is not possible. Masks of several
  /// claims on one directory add up.
  Watch watch(const std::string& directory, std::uint32_t mask);

  /// Returns what has happened since the last call, without waiting.
  std::vector<Event> read();

 private:
  void release(int number);
  /// Called with the mutex held.
  void removeUnclaimed();

  const std::uint32_t flags_;
  FileDescriptor descriptor_;
  std::mutex mutex_;
  std::map<int, unsigned> claims_;
  /// A watch that is being added may be one that was just let go of. While one is being added, none
  /// is removed.
  unsigned adding_ = 0;
  std::set<int> unclaimed_;
};

/// Follows the directory to which a path leads: the directory itself or, as long as it is missing,
/// the nearest ancestor that exists. Ancestors that are moved or removed are noticed too.
class WatchedPath {
 public:
  /// Opens a directory on the path; sets errno when it cannot.
  using Open = FileDescriptor (*)(const std::string& directory);

  /// `mask` says which events of the directory are wanted. Nothing is watched before establish().
  WatchedPath(Inotify& inotify, std::string path, std::uint32_t mask, Open open = nullptr)
      : inotify_(inotify), path_(std::move(path)), mask_(mask), open_(open) {}

  const std::string& path() const { return path_; }

  /// The number of the directory's watch; -1 while it is missing.
  int directory() const { return directory_.number(); }

  /// Returns whether the path may lead somewhere else since this event; establish() finds out.
  bool isUnsettledBy(const Inotify::Event& event) const;

  /// Looks where the path leads now, and watches that. What happens there afterwards is not missed.
  void establish();

 private:
  Inotify::Watch watch(const std::string& directory, std::uint32_t mask) const;
  bool isDirectory(const std::string& path) const;
  bool directoryIsStillThere() const;

  Inotify& inotify_;
  std::string path_;
  std::uint32_t mask_;
  Open open_;
  Inotify::Watch directory_;
  std::vector<Inotify::Watch> ancestors_;
  /// The entry of the nearest ancestor that would be the next step to the missing directory.
  std::string awaited_;
};

}  // namespace qx
