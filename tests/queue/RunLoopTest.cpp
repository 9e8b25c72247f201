#include "platform/queue/RunLoop.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <vector>

namespace {

using qx::RunLoop;

TEST(RunLoop, RunsTasksOnItsThreadInOrderUntilStopped) {
  auto& loop = RunLoop::main();
  // Before it runs a stop holds too, and counts once.
  loop.stop();
  std::vector<int> order;
  loop.perform([&] { order.push_back(0); });
  loop.run();
  EXPECT_TRUE(order.empty());
  const auto own = std::this_thread::get_id();
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
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
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
