#include "platform/queue/RunLoop.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <thread>

#include "tests/support/InChild.h"

namespace {

TEST(RunLoop, EndsOnASignalOrAStopWhetherItComesBeforeOrDuringRun) {
  auto& loop = qx::RunLoop::main();
  loop.stop();
  loop.run();
  loop.stopOnSignals({SIGTERM, SIGINT});
  raise(SIGTERM);
  loop.run();
  // The later of two calls adds to the first.
  loop.stopOnSignals({SIGHUP});
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    const std::jthread sender([signal] { kill(getpid(), signal); });
    loop.run();
  }
}

TEST(RunLoop, ChildrenCanBeWaitedForWhoeverIgnoredThemBefore) {
  signal(SIGCHLD, SIG_IGN);
  qx::RunLoop::main().stopOnSignals({});
  EXPECT_EQ(qx::test::inChild([] { return 7; }), 7);
}

}  // namespace
