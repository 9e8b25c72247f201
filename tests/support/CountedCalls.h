#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>
#include <utility>

#include "platform/base/FileDescriptor.h"
#include "tests/support/EndedAtCall.h"

namespace qx::test {

/// The test's side of a countdown: the file, and what daemons need in their environment.
class CountedCalls {
 public:
  explicit CountedCalls(std::string path) : path_(std::move(path)) {
    const FileDescriptor file(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    void* memory = MAP_FAILED;
    if (::ftruncate(file.get(), sizeof(Countdown)) == 0) {
      memory =
          ::mmap(nullptr, sizeof(Countdown), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    }
    if (memory == MAP_FAILED) std::abort();
    countdown_ = static_cast<Countdown*>(memory);
  }
  ~CountedCalls() { ::munmap(countdown_, sizeof(Countdown)); }
  CountedCalls(const CountedCalls&) = delete;
  CountedCalls& operator=(const CountedCalls&) = delete;

  Countdown* operator->() const { return countdown_; }
  /// Right before that call from now on, counted from 1; 0: nobody ends.
  void endAt(int call, bool isToStop = false) const {
    countdown_->ended = 0;
    countdown_->isToStop = isToStop;
    countdown_->left = call;
  }
  /// Nobody is ended any more.
  void stop() const { countdown_->left = 0; }
  std::map<std::string, std::string> environment(
      std::map<std::string, std::string> others = {}) const {
    others.emplace(countdownVariable, path_);
    others.emplace("LD_PRELOAD", ENDED_AT_CALL);
    return others;
  }

 private:
  const std::string path_;
  Countdown* countdown_ = nullptr;
};

}  // namespace qx::test
