#include "platform/queue/WorkQueue.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "platform/queue/Clock.h"
#include "platform/queue/WorkPool.h"
#include "tests/support/Gate.h"

namespace {

using namespace std::chrono_literals;
using qx::WorkQueue;
using qx::test::Gate;

/// Waits until all has run that was submitted before.
void drain(WorkQueue& queue) {
  Gate drained;
  queue.barrierAsync([&] { drained.pass(); });
  drained.wait();
}

TEST(SerialQueue, RunsInOrderOfSubmissionWhateverTheKind) {
  const auto queue = WorkQueue::serial("queue");
  const auto held = std::make_shared<int>();
  std::vector<int> order;
  for (int i = 0; i < 3000; i += 3) {
    queue->async([&order, i, held] { order.push_back(i); });
    queue->barrierAsync([&order, i] { order.push_back(i + 1); });
    EXPECT_EQ(queue->sync([&order, i] { return order.emplace_back(i + 2); }), i + 2);
    EXPECT_EQ(held.use_count(), 1) << "what a task holds is gone when the next one runs";
  }
  EXPECT_EQ(order.size(), 3000U);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(SerialQueue, SynchronousWorkRunsOnTheCallersThreadEvenWhenItHadToWait) {
  const auto queue = WorkQueue::serial("queue");
  Gate running;
  Gate release;
  queue->async([&] {
    running.pass();
    release.wait();
  });
  running.wait();
  std::vector<std::jthread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      const auto own = std::this_thread::get_id();
      EXPECT_EQ(queue->sync([] { return std::this_thread::get_id(); }), own);
    });
  }
  release.pass();
}

TEST(SerialQueue, WhatATaskHoldsMaySubmitToTheQueueAsItGoes) {
  const auto queue = WorkQueue::serial("queue");
  Gate done;
  std::shared_ptr<void> held(nullptr, [&](void*) { queue->async([&] { done.pass(); }); });
  queue->async([held = std::move(held)] {});
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
  drain(*queue);
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
  EXPECT_EQ(queue->sync([&] { return value; }), 2);
  EXPECT_EQ(sawOne, 10);
  // The last synchronous reader lets the barrier in, with no thread of the pool on its way.
  const auto fresh = WorkQueue::concurrent("fresh");
  Gate passed;
  fresh->sync([&] { fresh->barrierAsync([&] { passed.pass(); }); });
  passed.wait();
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
    drain(*queue);
    EXPECT_EQ(ran, 5);
  }
}

TEST(Suspension, FromATaskOfTheQueueTakesEffectWhenTheTaskReturns) {
  for (const auto& queue : {WorkQueue::serial("serial"), WorkQueue::concurrent("concurrent")}) {
    std::atomic<int> ran{0};
    Gate suspended;
    queue->barrierAsync([&] {
      queue->suspend();
      queue->async([&] { ++ran; });
      ++ran;
      suspended.pass();
    });
    suspended.wait();
    EXPECT_EQ(ran, 1);
    queue->resume();
    drain(*queue);
    EXPECT_EQ(ran, 2);
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
    queue->sync([] {});
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
  clock.waitForActionIn(2s);
  clock.advance(2s - 1ns);
  clock.waitForActionIn(1ns);
  due = true;
  clock.advance(1ns);
  EXPECT_EQ(clock.now(), 2s);
  done.wait();
  WorkQueue::global().after(1s, [&] { done.pass(); });
  clock.advance(1s);
  done.wait(2);
}

}  // namespace
