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

}  // namespace
