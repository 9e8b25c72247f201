#include "platform/queue/RunLoop.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <thread>
#include <vector>

namespace {

using qx::RunLoop;

TEST(RunLoop, RunsTasksOnItsThreadInOrderUntilStopped) {
  auto& loop = RunLoop::main();
  const auto own = std::this_thread::get_id();
  std::vector<int> order;
  loop.perform([&] { order.push_back(0); });
  std::jthread other([&] {
    for (int i = 1; i < 100; ++i) {
      loop.perform([&, i] {
        EXPECT_EQ(std::this_thread::get_id(), own);
        order.push_back(i);
      });
    }
    loop.perform([&] {
      loop.stop();
      loop.perform([&] { order.push_back(-1); });
    });
  });
  loop.run();
  EXPECT_EQ(order.size(), 100U);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order.at(static_cast<std::size_t>(i)), i);
}

TEST(RunLoop, StopBeforeRunHolds) {
  RunLoop::main().stop();
  bool ran = false;
  RunLoop::main().perform([&] { ran = true; });
  RunLoop::main().run();
  EXPECT_FALSE(ran);
  // A stop counts once.
  RunLoop::main().perform([] { RunLoop::main().stop(); });
  RunLoop::main().run();
  EXPECT_TRUE(ran);
}

TEST(RunLoop, EndsOnASignalWhetherItComesBeforeOrDuringRun) {
  auto& loop = RunLoop::main();
  loop.stopOnSignals({SIGTERM, SIGINT});
  raise(SIGTERM);
  loop.run();
  // While it sleeps, from another thread, and with the later of two calls adding to the first.
  loop.stopOnSignals({SIGHUP});
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    std::jthread sender;
    loop.perform([&] { sender = std::jthread([signal] { kill(getpid(), signal); }); });
    loop.run();
  }
}

}  // namespace
