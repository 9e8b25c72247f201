#include "platform/queue/WorkQueue.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

#include "platform/queue/Clock.h"
#include "platform/queue/Once.h"
#include "platform/queue/OperationQueue.h"
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

TEST(ConcurrentQueue, ReadersRunInParallelAndBarriersAlone) {
  qx::setWorkPoolSize(4);
  const auto queue = WorkQueue::concurrent("queue");
  // Four readers that each wait for all the others can only pass together.
  Gate together;
  for (int i = 0; i < 3; ++i) {
    queue->async([&] {
      together.pass();
      together.wait(4);
    });
  }
  queue->sync([&] {
    together.pass();
    together.wait(4);
  });

  std::atomic<int> readers{0};
  std::atomic<int> barriers{0};
  std::atomic<int> violations{0};
  const auto read = [&] {
    ++readers;
    if (barriers != 0) ++violations;
    --readers;
  };
  const auto exclude = [&] {
    if (++barriers != 1 || readers != 0) ++violations;
    if (--barriers != 0 || readers != 0) ++violations;
  };
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 6; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < 10000; ++i) {
        switch ((i + thread) % 8) {
          case 0:
            queue->barrierAsync(exclude);
            break;
          case 1:
            queue->barrierSync(exclude);
            break;
          case 2:
          case 3:
            queue->async(read);
            break;
          default:
            queue->sync(read);
        }
      }
    });
  }
  threads.clear();
  queue->barrierSync([] {});
  EXPECT_EQ(violations, 0);
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

TEST(SmallPool, ChainsOfQueuesWithAllThreadsWaitingComeThrough) {
  qx::WorkPool::shared().setSize(1, 1);
  std::vector<std::shared_ptr<WorkQueue>> queues;
  for (int i = 0; i < 12; ++i) {
    queues.push_back(i % 2 ? WorkQueue::concurrent("concurrent") : WorkQueue::serial("serial"));
  }
  std::atomic<int> reached{0};
  // Each level has asynchronous work in front of what the level above waits for.
  std::function<void(std::size_t)> descend = [&](std::size_t level) {
    if (level == queues.size()) {
      ++reached;
      return;
    }
    auto& queue = *queues[level];
    queue.async([&, level] {
      if (level + 1 < queues.size()) queues[level + 1]->barrierSync([] {});
    });
    if (level % 3 == 0) {
      queue.barrierSync([&] { descend(level + 1); });
    } else {
      queue.sync([&] { descend(level + 1); });
    }
  };
  Gate done;
  for (int i = 0; i < 50; ++i) {
    WorkQueue::global().async([&] {
      descend(0);
      done.pass();
    });
  }
  descend(0);
  done.wait(50);
  for (const auto& queue : queues) queue->barrierSync([] {});
  EXPECT_EQ(reached, 51);
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
  done.wait();
  WorkQueue::global().after(1s, [&] { done.pass(); });
  clock.advance(1s);
  done.wait(2);
}

TEST(Stress, EveryItemRunsOnceUnderEveryMixture) {
  qx::setWorkPoolSize(3);
  const std::vector<std::shared_ptr<WorkQueue>> queues{
      WorkQueue::serial("a"), WorkQueue::concurrent("b"), WorkQueue::concurrent("c")};
  std::vector<long> plain(queues.size());
  std::atomic<long> counted{0};
  std::atomic<long> expected{0};
  std::vector<long> expectedPlain(queues.size());
  std::mutex expectedMutex;
  std::vector<std::jthread> threads;
  for (unsigned thread = 0; thread < 8; ++thread) {
    threads.emplace_back([&, thread] {
      std::vector<long> submitted(queues.size());
      unsigned random = thread + 1;
      for (int i = 0; i < 10000; ++i) {
        random = random * 1664525 + 1013904223;
        const std::size_t at = (random >> 8) % queues.size();
        auto& queue = *queues[at];
        const auto exclusive = [&plain, at] { ++plain[at]; };
        const auto shared = [&counted] { ++counted; };
        switch ((random >> 16) % 7) {
          case 0:
            queue.barrierAsync(exclusive);
            ++submitted[at];
            break;
          case 1:
            queue.barrierSync(exclusive);
            ++submitted[at];
            break;
          case 2:
            queue.async(shared);
            ++expected;
            break;
          case 3:
            queue.suspend();
            queue.async(shared);
            ++expected;
            queue.resume();
            break;
          case 4:
            // From one queue into a later one only, so that no two wait for each other.
            queue.async([&queues, at, shared] {
              if (at + 1 < queues.size()) queues[at + 1]->sync(shared);
            });
            if (at + 1 < queues.size()) ++expected;
            break;
          default:
            queue.sync(shared);
            ++expected;
        }
      }
      const std::lock_guard lock(expectedMutex);
      for (std::size_t at = 0; at < queues.size(); ++at) expectedPlain[at] += submitted[at];
    });
  }
  threads.clear();
  for (const auto& queue : queues) queue->barrierSync([] {});
  EXPECT_EQ(counted, expected);
  EXPECT_EQ(plain, expectedPlain);
}

TEST(OperationQueue, StartsOperationsInParallel) {
  qx::OperationQueue queue;
  queue.setName("operations");
  EXPECT_EQ(queue.name(), "operations");
  const auto together = std::make_shared<Gate>();
  for (int i = 0; i < 2; ++i) {
    queue.addOperation([together] {
      together->pass();
      together->wait(2);
    });
  }
  together->wait(2);
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
