#include "platform/queue/WorkQueue.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <numeric>
#include <thread>
#include <vector>

#include "platform/queue/Clock.h"
#include "platform/queue/Once.h"
#include "platform/queue/WorkPool.h"
#include "tests/support/Gate.h"

namespace {

using namespace std::chrono_literals;
using qx::WorkQueue;
using qx::test::Gate;

TEST(SerialQueue, RunsInOrderOfSubmissionWhateverTheKind) {
  const auto queue = WorkQueue::serial("queue");
  std::vector<int> order;
  for (int i = 0; i < 3000; i += 3) {
    queue->async([&order, i] { order.push_back(i); });
    queue->barrierAsync([&order, i] { order.push_back(i + 1); });
    if (i % 30 == 0) {
      EXPECT_EQ(queue->sync([&order, i] { return order.emplace_back(i + 2); }), i + 2);
    } else {
      queue->async([&order, i] { order.push_back(i + 2); });
    }
  }
  queue->sync([] {});
  std::vector<int> expected(3000);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(order, expected);
  EXPECT_EQ(queue->label(), "queue");
}

TEST(SerialQueue, SynchronousWorkAlwaysRunsOnTheCallersThread) {
  const auto queue = WorkQueue::serial("queue");
  EXPECT_EQ(queue->sync([] { return std::this_thread::get_id(); }), std::this_thread::get_id());
  // Also when it had to wait, and somebody else let it in.
  Gate running;
  Gate release;
  queue->async([&] {
    running.pass();
    release.wait();
  });
  running.wait();
  std::atomic<int> elsewhere{0};
  std::vector<std::jthread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      const auto own = std::this_thread::get_id();
      if (queue->sync([] { return std::this_thread::get_id(); }) != own) ++elsewhere;
    });
  }
  release.pass();
  threads.clear();
  EXPECT_EQ(elsewhere, 0);
}

TEST(SerialQueue, WhatATaskHoldsIsGoneWhenTheNextOneRuns) {
  const auto queue = WorkQueue::serial("queue");
  for (int i = 0; i < 200; ++i) {
    auto held = std::make_shared<int>(i);
    const std::weak_ptr<int> watch = held;
    queue->async([held = std::move(held)] {});
    EXPECT_TRUE(queue->sync([&] { return watch.expired(); }));
  }
}

TEST(SerialQueue, DestroysTaskOutsideItsLocks) {
  // The destruction of what a task holds submits to the same queue.
  const auto queue = WorkQueue::serial("queue");
  Gate done;
  struct Resubmitting {
    WorkQueue& queue;
    Gate& done;
    Resubmitting(WorkQueue& itsQueue, Gate& itsDone) : queue(itsQueue), done(itsDone) {}
    ~Resubmitting() {
      queue.async([&gate = done] { gate.pass(); });
    }
  };
  queue->async([held = std::make_shared<Resubmitting>(*queue, done)] {});
  done.wait();
}

TEST(ConcurrentQueue, ReadersRunInParallel) {
  qx::setWorkPoolSize(4);
  const auto queue = WorkQueue::concurrent("queue");
  // Four readers that each wait for all the others can only pass together.
  Gate together;
  const auto meet = [&] {
    together.pass();
    together.wait(4);
  };
  for (int i = 0; i < 3; ++i) queue->async(meet);
  queue->sync(meet);
  queue->barrierSync([] {});
}

TEST(ConcurrentQueue, BarriersKeepTheirPlace) {
  const auto queue = WorkQueue::concurrent("queue");
  Gate running;
  Gate release;
  queue->async([&] {
    running.pass();
    release.wait();
  });
  running.wait();
  int value = 0;
  std::atomic<int> sawOne{0};
  queue->barrierAsync([&] { value = 1; });
  for (int i = 0; i < 10; ++i) queue->async([&] { sawOne += value == 1 ? 1 : 0; });
  queue->barrierAsync([&] { value = 2; });
  // Behind two barriers, one of which waits for the reader in front.
  std::jthread late([&] { EXPECT_EQ(queue->sync([&] { return value; }), 2); });
  std::jthread releasing([&] { release.pass(); });
  EXPECT_EQ(queue->barrierSync([&] { return value; }), 2);
  EXPECT_EQ(sawOne, 10);
}

TEST(ConcurrentQueue, ReaderDoesNotWaitForReadersThatHaveNoThread) {
  qx::WorkPool::shared().setSize(1, 1);
  const auto queue = WorkQueue::concurrent("queue");
  Gate running;
  Gate release;
  for (int i = 0; i < 3; ++i) {
    queue->async([&] {
      running.pass();
      release.wait();
    });
  }
  running.wait();
  bool ran = false;
  queue->sync([&] { ran = true; });
  EXPECT_TRUE(ran);
  release.pass();
  queue->barrierSync([] {});
  EXPECT_EQ(running.passed(), 3U);
}

TEST(Suspension, NestsAndKeepsEverythingBack) {
  for (const auto& queue : {WorkQueue::serial("serial"), WorkQueue::concurrent("concurrent")}) {
    std::atomic<int> ran{0};
    queue->suspend();
    queue->suspend();
    for (int i = 0; i < 4; ++i) queue->async([&] { ++ran; });
    std::jthread waiting([&] { queue->sync([&] { ++ran; }); });
    queue->resume();
    // Another queue's work passes through the same pool meanwhile.
    for (int i = 0; i < 20; ++i) {
      Gate passed;
      WorkQueue::global().async([&] { passed.pass(); });
      passed.wait();
    }
    EXPECT_EQ(ran, 0);
    queue->resume();
    waiting.join();
    queue->barrierSync([] {});
    EXPECT_EQ(ran, 5);
  }
}

TEST(Suspension, FromATaskOfTheQueueTakesEffectWhenTheTaskReturns) {
  for (const auto& queue : {WorkQueue::serial("serial"), WorkQueue::concurrent("concurrent")}) {
    std::atomic<int> ran{0};
    const auto suspendItself = [&] {
      queue->suspend();
      queue->async([&] { ++ran; });
      ++ran;
    };
    queue->sync(suspendItself);
    EXPECT_EQ(ran, 1);
    Gate suspended;
    queue->resume();
    queue->barrierSync([] {});
    EXPECT_EQ(ran, 2);
    queue->barrierAsync([&] {
      suspendItself();
      suspended.pass();
    });
    suspended.wait();
    EXPECT_EQ(ran, 3);
    queue->resume();
    queue->barrierSync([] {});
    EXPECT_EQ(ran, 4);
  }
}

TEST(Suspension, QueueMayGoAwaySuspendedWithPendingWork) {
  const auto held = std::make_shared<int>(0);
  for (const bool isSerial : {true, false}) {
    auto queue = isSerial ? WorkQueue::serial("serial") : WorkQueue::concurrent("concurrent");
    queue->suspend();
    for (int i = 0; i < 5; ++i) queue->async([held] { ADD_FAILURE() << "ran while suspended"; });
    queue->barrierAsync([held] { ADD_FAILURE() << "ran while suspended"; });
    EXPECT_EQ(held.use_count(), 7);
    const std::weak_ptr<WorkQueue> watch = queue;
    queue.reset();
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(held.use_count(), 1);
  }
}

TEST(Lifetime, PendingWorkKeepsTheQueue) {
  Gate done;
  Gate release;
  {
    const auto queue = WorkQueue::serial("queue");
    queue->async([&] { release.wait(); });
    for (int i = 0; i < 100; ++i) queue->async([&] { done.pass(); });
  }
  release.pass();
  done.wait(100);
}

TEST(SmallPool, WaitingThreadDrainsAQueueThatNobodyElseDrains) {
  // The only thread of the pool is held up outside of any queue, and the pool may not grow.
  qx::WorkPool::shared().setSize(1, 1);
  const auto held = std::make_shared<Gate>();
  const auto release = std::make_shared<Gate>();
  WorkQueue::global().async([held, release] {
    held->pass();
    release->wait();
  });
  held->wait();
  for (const auto& queue : {WorkQueue::serial("serial"), WorkQueue::concurrent("concurrent")}) {
    std::vector<std::thread::id> threads;
    queue->async([&] { threads.push_back(std::this_thread::get_id()); });
    queue->barrierAsync([&] { threads.push_back(std::this_thread::get_id()); });
    queue->barrierSync([] {});
    EXPECT_EQ(threads, std::vector(2, std::this_thread::get_id()));
  }
  // A thread that fell asleep is called when the work in front of its own becomes takeable; in some
  // of the rounds it is still awake by then, which must do as well.
  for (int round = 0; round < 200; ++round) {
    const auto queue = WorkQueue::serial("queue");
    std::vector<int> order;
    Gate submitting;
    std::jthread waiter;
    queue->sync([&] {
      queue->async([&] { order.push_back(1); });
      waiter = std::jthread([&] {
        submitting.pass();
        queue->sync([&] { order.push_back(2); });
      });
      submitting.wait();
      for (int i = 0; i < round; ++i) std::this_thread::yield();
    });
    waiter.join();
    EXPECT_EQ(order, (std::vector{1, 2}));
  }
  release->pass();
}

TEST(SmallPool, WaitingForASuspendedQueueLeavesItsThreadToOthers) {
  qx::WorkPool::shared().setSize(1, 1);
  const auto queue = WorkQueue::serial("queue");
  queue->suspend();
  Gate done;
  for (int i = 0; i < 10; ++i) {
    WorkQueue::global().async([&] {
      queue->sync([] {});
      done.pass();
    });
  }
  // Comes to a turn only if each of the ten gave its place up.
  WorkQueue::global().async([&] { queue->resume(); });
  done.wait(10);
}

TEST(GlobalQueue, GrowsWhenItsTasksBlock) {
  const auto arrived = std::make_shared<Gate>();
  for (int i = 0; i < 24; ++i) {
    WorkQueue::global().async([arrived] {
      arrived->pass();
      arrived->wait(24);
    });
  }
  arrived->wait(24);
  EXPECT_EQ(WorkQueue::global().sync([] { return std::this_thread::get_id(); }),
            std::this_thread::get_id());
}

TEST(GlobalQueue, ThreadsTakeNoSignals) {
  Gate done;
  WorkQueue::global().async([&] {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 1);
    EXPECT_EQ(sigismember(&blocked, SIGCHLD), 1);
    done.pass();
  });
  done.wait();
  sigset_t blocked;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  EXPECT_EQ(sigismember(&blocked, SIGTERM), 0) << "the starting thread keeps its own mask";
}

TEST(After, RunsWhenTheDelayHasPassedAndKeepsTheQueue) {
  static qx::ManualClock clock;
  qx::Clock::setCurrent(clock);
  std::atomic<bool> due{false};
  Gate done;
  {
    const auto queue = WorkQueue::serial("queue");
    queue->after(2s, [&] {
      EXPECT_TRUE(due);
      done.pass();
    });
  }
  clock.waitForScheduled(1);
  clock.advance(2s - 1ns);
  EXPECT_EQ(clock.scheduledCount(), 1U);
  due = true;
  clock.advance(1ns);
  EXPECT_EQ(clock.now(), 2s);
  done.wait();
  WorkQueue::global().after(1s, [&] { done.pass(); });
  clock.advance(1s);
  done.wait(2);
}

TEST(Stress, EveryItemRunsOnceAndBarriersAloneUnderEveryMixture) {
  qx::setWorkPoolSize(3);
  struct Line {
    explicit Line(std::shared_ptr<WorkQueue> itsQueue) : queue(std::move(itsQueue)) {}
    void read() {
      ++readers;
      if (barriers != 0) ++violations;
      ++reads;
      --readers;
    }
    void exclude() {
      if (++barriers != 1 || readers != 0) ++violations;
      ++exclusions;
      if (--barriers != 0 || readers != 0) ++violations;
    }
    const std::shared_ptr<WorkQueue> queue;
    std::atomic<int> readers{0}, barriers{0}, violations{0};
    std::atomic<long> reads{0}, expectedReads{0}, expectedExclusions{0};
    long exclusions = 0;  // kept by the barriers alone
  };
  std::array<Line, 3> lines{Line(WorkQueue::concurrent("a")), Line(WorkQueue::concurrent("b")),
                            Line(WorkQueue::serial("c"))};
  std::vector<std::jthread> threads;
  for (unsigned thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&, thread] {
      unsigned random = thread + 1;
      for (int i = 0; i < 10000; ++i) {
        random = random * 1664525 + 1013904223;
        const std::size_t at = (random >> 8) % lines.size();
        Line& line = lines[at];
        const auto read = [&line] { line.read(); };
        const auto exclude = [&line] { line.exclude(); };
        const auto kind = (random >> 16) % 7;
        ++(kind < 2 ? line.expectedExclusions : line.expectedReads);
        switch (kind) {
          case 0:
            line.queue->barrierAsync(exclude);
            break;
          case 1:
            line.queue->barrierSync(exclude);
            break;
          case 2:
            line.queue->async(read);
            break;
          case 3:
            line.queue->suspend();
            line.queue->async(read);
            line.queue->resume();
            break;
          case 4:
            // From one queue into a later one only, so that no two wait for each other.
            line.queue->async([&lines, at, read] {
              read();
              if (at + 1 == lines.size()) return;
              ++lines[at + 1].expectedReads;
              lines[at + 1].queue->sync([&next = lines[at + 1]] { next.read(); });
            });
            break;
          default:
            line.queue->sync(read);
        }
      }
    });
  }
  threads.clear();
  for (auto& line : lines) {
    line.queue->barrierSync([] {});
    EXPECT_EQ(line.reads, line.expectedReads);
    EXPECT_EQ(line.exclusions, line.expectedExclusions);
    EXPECT_EQ(line.violations, 0);
  }
}

TEST(OnceGuard, RunsOnceAndAllWaitForIt) {
  static constinit qx::OnceGuard once;
  int value = 0;
  std::atomic<int> winners{0};
  std::vector<std::jthread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      if (once.run([&] { ++value; })) ++winners;
      EXPECT_EQ(value, 1);
    });
  }
  threads.clear();
  EXPECT_EQ(winners, 1);
}

}  // namespace
