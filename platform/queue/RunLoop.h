#pragma once

#include <initializer_list>
#include <memory>

namespace qx {

/// The main thread's run loop. It only waits, and ends when it is stopped or when one of the
/// signals given to stopOnSignals() arrives.
class RunLoop {
 public:
  static RunLoop& main();

  /// Blocks these signals in the calling thread (and so in all that it starts) and treats their
  /// arrival as stop(). SIGPIPE and SIGXFSZ are ignored from here on. SIGCHLD is not, although the
  /// process may have been started so; otherwise no child could be waited for. Call this first
  /// thing in main, before any other thread exists (signalfd(2)).
  void stopOnSignals(std::initializer_list<int> signals);

  /// Runs until stop(). Call it only on the main thread.
  void run();

  /// Makes run() return, or return at once when it has not begun. Any thread may call it.
  void stop();

 private:
  RunLoop();
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace qx
