#include "platform/queue/Clock.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/Gate.h"

namespace {

using namespace std::chrono_literals;
using qx::Clock;
using qx::ManualClock;
using qx::test::Gate;

TEST(MonotonicClock, RunsActionsInOrderOfTimeAndNotTooEarly) {
  auto& clock = Clock::current();
  const auto begin = clock.now();
  Gate done;
  std::string order;
  Clock::Duration first{};
  clock.schedule(30ms, [&] {
    order += "c";
    done.pass();
  });
  clock.schedule(10ms, [&] {
    first = clock.now();
    order += "a";
  });
  const auto cancelled = clock.schedule(15ms, [&] { order += "x"; });
  clock.schedule(20ms, [&] { order += "b"; });
  clock.cancel(cancelled);
  clock.cancel(cancelled);
  clock.cancel(987654);
  done.wait();
  EXPECT_EQ(order, "abc");
  EXPECT_GE(first - begin, 10ms);
  // Idle again; an action may schedule and cancel.
  clock.schedule(-5s, [&] { clock.schedule(0ns, [&] { done.pass(); }); });
  done.wait(2);
  clock.cancel(clock.schedule(Clock::Duration::max(), [] {}));
}

TEST(ManualClock, MovesOnlyWhenTold) {
  ManualClock clock;
  std::vector<std::pair<char, Clock::Duration>> ran;
  const auto record = [&](char name) { return [&, name] { ran.emplace_back(name, clock.now()); }; };
  clock.schedule(5s, record('c'));
  clock.schedule(1s, [&] {
    ran.emplace_back('a', clock.now());
    clock.schedule(1s, record('b'));
    clock.schedule(60s, record('z'));
  });
  const auto cancelled = clock.schedule(3s, record('x'));
  clock.cancel(cancelled);
  EXPECT_EQ(clock.scheduledCount(), 2U);
  clock.advance(0s);
  EXPECT_TRUE(ran.empty());
  clock.advance(5s);
  EXPECT_EQ(ran, (std::vector<std::pair<char, Clock::Duration>>{{'a', 1s}, {'b', 2s}, {'c', 5s}}));
  EXPECT_EQ(clock.now(), 5s);
  EXPECT_EQ(clock.scheduledCount(), 1U);
}

TEST(ManualClock, WaitsForTheCodeUnderTest) {
  ManualClock clock;
  bool ran = false;
  std::jthread code([&] {
    clock.schedule(1s, [&] { ran = true; });
    clock.schedule(2s, [] {});
  });
  clock.waitForScheduled(2);
  clock.advance(1s);
  EXPECT_TRUE(ran);
}

}  // namespace
