#pragma once

#include <functional>

/// The calls by which a process changes and reads files, so that a test is told of each before it
/// is made: those of the code under test, of the libraries it uses, SQLite among them.
namespace docsource::test {

/// Called before each call of this thread, while it is set, with the call's name; `changes` when it
/// is one that changes something. 0 lets it go on, an errno lets it fail without having been made.
/// Not called for what it calls itself.
using BeforeCall = std::function<int(const char* name, bool changes)>;

/// Sets it for this thread as long as the object lives.
class WatchedCalls {
 public:
  explicit WatchedCalls(BeforeCall before);
  ~WatchedCalls();
  WatchedCalls(const WatchedCalls&) = delete;
  WatchedCalls& operator=(const WatchedCalls&) = delete;

 private:
  const BeforeCall* outer_;
  BeforeCall before_;
};

}  // namespace docsource::test
