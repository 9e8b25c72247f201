#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <ctime>
#include <list>
#include <map>
#include <set>
#include <vector>

#include "platform/identity/ProcessDirectory.h"

namespace qx::kernel {

/// Which process modified which file that was not closed since. Nothing is kept of files to which
/// nothing has happened lately. A write through a mapping shows only by the time of modification;
/// it is noticed for files that were heard of lately, and for all others when their time is later
/// than the service's start. Used by one thread at a time.
class FinishedWrites {
 public:
  static constexpr std::size_t mostRemembered = 4096;

  /// `start` is the time (CLOCK_REALTIME) from which on changes are told.
  explicit FinishedWrites(timespec start) : start_(start) {}

  void modified(const struct stat& status, pid_t process);
  /// Returns whose modifications this closing finishes: those of the process that closed; if there
  /// are none, those of processes that are gone, which left their open file to it; if there are
  /// none, its own, if the file has been modified since it was last heard of. Empty when there are
  /// none at all.
  std::vector<pid_t> closed(const struct stat& status, pid_t process);
  /// Says that the present time of modification has been told, or was set on purpose.
  void isKnown(const struct stat& status);

  void clear();

 private:
  struct File {
    timespec modified{};
    bool isTimeKnown = false;
    std::set<pid_t> writers;
    std::list<FileIdentity>::iterator recency;
  };
  File& file(const struct stat& status);

  const timespec start_;
  std::map<FileIdentity, File> files_;
  std::list<FileIdentity> recent_;  // the latest first
};

}  // namespace qx::kernel
