#include "platform/queue/Clock.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/Gate.h"

namespace {

using namespace std::chrono_literals;
using qx::Clock;
using qx::test::Gate;

TEST(MonotonicClock, RunsActionsInOrderOfTimeAndNotTooEarly) {
  auto& clock = Clock::current();
  const auto begin = clock.now();
  // From one beginning, and far enough apart for a machine that is busy with other things.
  const auto in = [&](Clock::Duration delay) { return begin + delay - clock.now(); };
  Gate done;
  std::string order;
  Clock::Duration first{};
  clock.schedule(in(500ms), [&] {
    order += "c";
    done.pass();
  });
  clock.schedule(in(100ms), [&] {
    first = clock.now();
    order += "a";
  });
  const auto cancelled = clock.schedule(in(400ms), [&] { order += "x"; });
  clock.schedule(in(200ms), [&] { order += "b"; });
  clock.cancel(cancelled);
  clock.cancel(cancelled);
  clock.cancel(987654);
  done.wait();
  EXPECT_EQ(order, "abc");
  EXPECT_GE(first - begin, 100ms);
  // Idle again; an action may schedule and cancel.
  clock.schedule(-5s, [&] { clock.schedule(0ns, [&] { done.pass(); }); });
  done.wait(2);
  clock.cancel(clock.schedule(Clock::Duration::max(), [] {}));
}

}  // namespace
