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

void expectNoFindings(std::uint64_t usually,
                      const std::function<std::unique_ptr<Model>(std::uint64_t seed)>& make) {
  const auto runs = numberFrom("DOCSOURCE_MODEL_RUNS", usually);
  const auto first = numberFrom("DOCSOURCE_MODEL_SEED", 1);
  std::uint64_t findings = 0;
  for (auto seed = first; seed < first + runs; ++seed) {
    const auto model = make(seed);
    const auto problem = model->run();
    if (problem.empty()) continue;
    ++findings;
    ADD_FAILURE() << "DOCSOURCE_MODEL_RUNS=1 DOCSOURCE_MODEL_SEED=" << seed << ": " << problem
                  << (runs == 1 ? "\n" + model->trace() : "");
  }
  testing::Test::RecordProperty("runs", std::to_string(runs));
  testing::Test::RecordProperty("findings", std::to_string(findings));
}

TEST(ModelTest, NothingIsLostAndBothSidesAreEqualAtRest) {
  // What a process does once only would make the first run another one than it is later.
  EXPECT_EQ(Model(0).run(), "");
  expectNoFindings(40, [](std::uint64_t seed) { return std::make_unique<Model>(seed); });
}

class ModelAtServers : public testing::TestWithParam<std::string> {};

TEST_P(ModelAtServers, NothingIsLostAndBothSidesAreEqualAtRest) {
  Server server(GetParam());
  if (!server.runs()) GTEST_SKIP() << server.says();
  expectNoFindings(2, [&](std::uint64_t seed) { return std::make_unique<Model>(seed, &server); });
}

INSTANTIATE_TEST_SUITE_P(, ModelAtServers,
                         testing::Values("apache", "lighttpd", "nginx", "rclone", "sabre", "moto",
                                         "s3rver"),
                         [](const auto& server) { return server.param; });

}  // namespace
