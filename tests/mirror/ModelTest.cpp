// Many runs of the model. DOCSOURCE_MODEL_RUNS says how many, DOCSOURCE_MODEL_SEED from which seed;
// one run with a seed is that run again.

#include "tests/mirror/Model.h"

#include <gtest/gtest.h>

namespace {

using namespace docsource::test;

std::uint64_t numberFrom(const char* variable, std::uint64_t otherwise) {
  const char* text = std::getenv(variable);
  return text ? std::strtoull(text, nullptr, 10) : otherwise;
}

TEST(ModelTest, NothingIsLostAndBothSidesAreEqualAtRest) {
  const auto runs = numberFrom("DOCSOURCE_MODEL_RUNS", 40);
  const auto first = numberFrom("DOCSOURCE_MODEL_SEED", 1);
  std::uint64_t findings = 0;
  // What a process does once only would make the first run another one than it is later.
  EXPECT_EQ(Model(0).run(), "");
  for (auto seed = first; seed < first + runs; ++seed) {
    Model model(seed);
    const auto problem = model.run();
    if (problem.empty()) continue;
    ++findings;
    ADD_FAILURE() << "DOCSOURCE_MODEL_RUNS=1 DOCSOURCE_MODEL_SEED=" << seed << ": " << problem
                  << (runs == 1 ? "\n" + model.trace() : "");
  }
  RecordProperty("runs", std::to_string(runs));
  RecordProperty("findings", std::to_string(findings));
}

}  // namespace
