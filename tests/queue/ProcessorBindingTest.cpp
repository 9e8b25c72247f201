#include "platform/queue/ProcessorBinding.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace qx {
namespace {

cpu_set_t setOf(const std::vector<int>& processors) {
  cpu_set_t set;
  CPU_ZERO(&set);
  for (const int processor : processors) CPU_SET(processor, &set);
  return set;
}

void allow(const std::vector<int>& processors) {
  const auto set = setOf(processors);
  ASSERT_EQ(sched_setaffinity(0, sizeof(set), &set), 0);
}

/// Of the calling thread.
std::vector<int> allowed() {
  cpu_set_t set;
  CPU_ZERO(&set);
  EXPECT_EQ(sched_getaffinity(0, sizeof(set), &set), 0);
  std::vector<int> processors;
  for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
    if (CPU_ISSET(processor, &set)) processors.push_back(processor);
  }
  return processors;
}

/// As a thread does that runs on this processor and wakes the owner.
void bindFrom(int processor, ProcessorBinding& binding) {
  std::thread([&] {
    allow({processor});
    binding.bindToThisProcessor();
  }).join();
}

TEST(ProcessorBinding, KeepsToWhatIsAllowedAndGivesItBack) {
  const auto all = allowed();
  if (all.size() < 2) GTEST_SKIP() << "there is one processor only";
  ProcessorBinding binding;
  for (const int processor : {all.front(), all.back()}) {
    bindFrom(processor, binding);
    EXPECT_EQ(allowed(), std::vector{processor});
  }
  binding.release();
  EXPECT_EQ(allowed(), all);

  bindFrom(all.front(), binding);
  allow({all.back()});  // as taskset(1) does meanwhile
  bindFrom(all.front(), binding);
  EXPECT_EQ(allowed(), std::vector{all.back()});
  binding.release();
  EXPECT_EQ(allowed(), std::vector{all.back()}) << "what was said last holds";
  allow(all);
}

}  // namespace
}  // namespace qx
