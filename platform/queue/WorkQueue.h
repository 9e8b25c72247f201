#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

namespace qx {

/// A queue of work: serial (one task at a time, in the order of submission) or concurrent (tasks
/// run in parallel, a barrier runs alone, after all that was submitted before it and before all
/// that is submitted after it).
///
/// Any thread may submit. Asynchronous work runs on the process's pool of threads. A synchronous
/// submission to an idle queue runs on the caller's thread without waking anybody. A thread that
/// waits for a queue drains the queue itself when nobody else is doing so, so that no set of
/// blocked threads brings the process to a stand, whatever the size of the pool.
///
/// A synchronous submission from a task that already runs on the same serial queue (or, on a
/// concurrent one, from or of a barrier) waits for itself: never do that.
///
/// The queue lives as long as somebody holds it or work is pending on it. Tasks must not throw.
class WorkQueue : public std::enable_shared_from_this<WorkQueue> {
 public:
  using Task = std::function<void()>;

  static std::shared_ptr<WorkQueue> serial(std::string label);
  static std::shared_ptr<WorkQueue> concurrent(std::string label);
  /// The global concurrent queue of default priority. Never suspended, takes no barriers.
  static WorkQueue& global();

  virtual ~WorkQueue() = default;
  WorkQueue(const WorkQueue&) = delete;
  WorkQueue& operator=(const WorkQueue&) = delete;

  const std::string& label() const { return label_; }

  /// Submits and returns at once.
  virtual void async(Task task) = 0;
  virtual void barrierAsync(Task task) = 0;

  /// Submits, waits until it has run, and returns what it returned.
  template <class F>
  auto sync(F&& work) {
    return wait(std::forward<F>(work), false);
  }
  template <class F>
  auto barrierSync(F&& work) {
    return wait(std::forward<F>(work), true);
  }

  /// Submits `task` asynchronously when `delay` has passed on Clock::current().
  void after(std::chrono::nanoseconds delay, Task task);

  /// Suspensions nest; each wants its resume(). What runs when the queue is suspended finishes;
  /// nothing starts until the last resume(). A queue may suspend itself from its own task.
  virtual void suspend() = 0;
  virtual void resume() = 0;

 protected:
  explicit WorkQueue(std::string label) : label_(std::move(label)) {}

  /// Runs `function(context)` and returns when it has run.
  virtual void syncErased(void (*function)(void*), void* context, bool barrier) = 0;

 private:
  template <class F>
  auto wait(F&& work, bool barrier) {
    using Returned = std::invoke_result_t<F&>;
    if constexpr (std::is_void_v<Returned>) {
      auto body = [&work] { work(); };
      syncErased([](void* context) { (*static_cast<decltype(body)*>(context))(); }, &body, barrier);
    } else {
      std::optional<Returned> returned;
      auto body = [&work, &returned] { returned.emplace(work()); };
      syncErased([](void* context) { (*static_cast<decltype(body)*>(context))(); }, &body, barrier);
      return std::move(*returned);
    }
  }

  std::string label_;
};

/// Submits to the global queue what only answers a call, and so waits for nothing: when the call
/// was read from a connection, the thread that read it gives the answer itself as soon as the call
/// has returned.
void answerFromGlobalQueue(WorkQueue::Task task);

/// How many threads the pool behind the queues may use before it stops adding more of its own
/// accord (it still adds one for each that waits inside a queue). For tests; takes effect on new
/// submissions.
void setWorkPoolSize(unsigned threads);

}  // namespace qx
