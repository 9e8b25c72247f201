#pragma once

#include <csignal>

namespace tool {

/// While it lives Ctrl-C does not end the program: a command that waits looks whether it came, and
/// says what goes on without it. One at a time, on the main thread.
class Interruption {
 public:
  Interruption();
  ~Interruption();
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

  bool hasCome() const;

 private:
  struct sigaction before_ {};
};

}  // namespace tool
