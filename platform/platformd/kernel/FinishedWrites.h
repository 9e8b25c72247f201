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

/// Which files were modified by whom and not closed since. Of the files that nothing happened to
/// lately nothing is kept, so a write through a mapping, which shows by the time of modification
/// alone, is told by it only for those that were heard of lately, and for all others whenever their
/// time is later than the service's start. One thread at a time.
class FinishedWrites {
 public:
  static constexpr std::size_t mostRemembered = 4096;

  /// `start` is the time (CLOCK_REALTIME) since which changes are told.
  explicit FinishedWrites(timespec start) : start_(start) {}

  void modified(const struct stat& status, pid_t process);
  /// The modifications that this closing finishes: those of the process that closed, else those of
  /// processes that are gone, which left their open file to it, else its own, if the file has been
  /// modified since it was heard of last. Empty when there are none.
  std::vector<pid_t> closed(const struct stat& status, pid_t process);
  /// What the time of modification says now has been told, or was set on purpose.
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
