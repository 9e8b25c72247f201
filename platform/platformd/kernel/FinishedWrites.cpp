// Modifications that wait for the closing of their files.

#include "platform/platformd/kernel/FinishedWrites.h"

#include <signal.h>

#include <cerrno>
#include <utility>

namespace qx::kernel {
namespace {

bool isLater(const timespec& time, const timespec& than) {
  return std::pair(time.tv_sec, time.tv_nsec) > std::pair(than.tv_sec, than.tv_nsec);
}

bool isSame(const timespec& time, const timespec& other) {
  return time.tv_sec == other.tv_sec && time.tv_nsec == other.tv_nsec;
}

}  // namespace

FinishedWrites::File& FinishedWrites::file(const struct stat& status) {
  const FileIdentity identity = identityOf(status);
  auto [entry, isNew] = files_.try_emplace(identity);
  File& file = entry->second;
  if (!isNew) {
    recent_.splice(recent_.begin(), recent_, file.recency);
    return file;
  }
  recent_.push_front(identity);
  file.recency = recent_.begin();
  if (files_.size() > mostRemembered) {
    files_.erase(recent_.back());
    recent_.pop_back();
  }
  return file;
}

void FinishedWrites::modified(const struct stat& status, pid_t process) {
  file(status).writers.insert(process);
}

void FinishedWrites::isKnown(const struct stat& status) {
  File& known = file(status);
  known.modified = status.st_mtim;
  known.isTimeKnown = true;
}

std::vector<pid_t> FinishedWrites::closed(const struct stat& status, pid_t process) {
  File& known = file(status);
  std::vector<pid_t> finished;
  if (known.writers.erase(process) != 0) {
    finished.push_back(process);
  } else {
    std::erase_if(known.writers, [&](pid_t writer) {
      const bool isGone = kill(writer, 0) != 0 && errno == ESRCH;
      if (isGone) finished.push_back(writer);
      return isGone;
    });
  }
  const bool hasChanged =
      known.isTimeKnown ? !isSame(status.st_mtim, known.modified) : isLater(status.st_mtim, start_);
  if (finished.empty() && hasChanged) finished.push_back(process);
  return finished;
}

void FinishedWrites::clear() {
  files_.clear();
  recent_.clear();
}

}  // namespace qx::kernel
