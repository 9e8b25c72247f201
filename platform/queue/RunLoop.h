#pragma once

#include <initializer_list>
#include <memory>

namespace qx {

/// The main thread's run loop: does nothing but wait, and ends when it is stopped or when one of
/// the signals given to stopOnSignals() arrives.
class RunLoop {
 public:
  static RunLoop& main();

  /// Blocks these signals in the calling thread (and so in all that it starts) and takes their
  /// arrival as stop(); SIGPIPE and SIGXFSZ are ignored from here on, and SIGCHLD is not, which who
  /// started us may have left so, and no child could be waited for. Call first thing in main,
  /// before any other thread exists (signalfd(2)).
  void stopOnSignals(std::initializer_list<int> signals);

  /// Runs until stop(). On the main thread only.
  void run();

  /// Makes run() return, now or, when it does not run yet, at once on entry. Any thread.
  void stop();

 private:
  RunLoop();
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace qx
