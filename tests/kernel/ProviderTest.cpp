// The whole system and the example provider, used by programs that never heard of either.

#include "tests/endtoend/Broker.h"
#include "tests/kernel/Fixture.h"

namespace {

using namespace qx::test;
using qx::URL;

const char* const identifier = "com.example.provider";

class ProviderTest : public Broker, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    if (const auto reason = reasonNotToWatch(GetParam())) GTEST_SKIP() << *reason;
    platformd_.emplace("platformd", installation_.root(),
                       std::map<std::string, std::string>{{"DOCSOURCE_COORDINATION", GetParam()}});
    ASSERT_TRUE(platformd_->logs("Every program is coordinated"));
  }

  /// Documents named after their content, and everything that it takes to have them.
  void provide(const std::map<std::string, std::size_t>& documents) {
    for (const auto& [name, size] : documents) {
      std::ofstream(origin_ + "/" + name) << contentOf(name, size);
    }
    storage_ = installation_.installExampleProvider(origin_);
    start();
    ASSERT_TRUE(platformd_->logs(" placeholders of doc source " + std::string(identifier) + "."));
    application_.emplace(readerAndWriter());
    for (const auto& [name, size] : documents) {
      const auto granted = application_->connect().call(
          extendSandbox, {URL::fileURL(document(name)), identifier, application_->identifier()});
      ASSERT_EQ(granted.kind, Wire::Answer::Kind::reply) << name;
    }
  }

  std::string document(const std::string& name) const { return storage_ + "/" + name; }
  /// Has the provider take the content away; whether it did.
  bool evict(const std::string& name) const {
    application_->connect().call(
        stopProviding, {URL::fileURL(document(name)), identifier, application_->identifier()});
    return isPlaceholder(name);
  }
  bool isPlaceholder(const std::string& name) const {
    return getxattr(document(name).c_str(), "user.docsource.placeholder", nullptr, 0) >= 0;
  }
  std::int64_t blocks(const std::string& name) const {
    struct stat status {};
    return stat(document(name).c_str(), &status) == 0 ? status.st_blocks : -1;
  }

  const std::string origin_ = installation_.staging();
  std::string storage_;
  std::optional<Daemon> platformd_;
  std::optional<Consumer> application_;
};

TEST_P(ProviderTest, WhatItHidBeforeAnybodyKeptReadersWaitingIsReadableAfterwards) {
  EXPECT_EQ(platformd_->end(SIGTERM), 0);
  std::ofstream(origin_ + "/letter") << contentOf("letter", 5000);
  storage_ = installation_.installExampleProvider(origin_);
  start();
  const auto mode = [&] {
    struct stat status {};
    return stat(document("letter").c_str(), &status) == 0 ? int(status.st_mode & 0777) : -1;
  };
  ASSERT_TRUE(eventually([&] { return isPlaceholder("letter") && mode() == 0; }));
  platformd_.emplace("platformd", installation_.root(),
                     std::map<std::string, std::string>{{"DOCSOURCE_COORDINATION", GetParam()}});
  ASSERT_TRUE(eventually([&] { return mode() > 0; }));
  EXPECT_TRUE(isPlaceholder("letter"));
  // The permissions are the user's to change from then on.
  EXPECT_TRUE(eventually([&] {
    std::array<char, 200> mark{};
    const auto size = getxattr(document("letter").c_str(), "user.docsource.placeholder",
                               mark.data(), mark.size());
    return size > 0 && std::string_view(mark.data()).find("mode:") == std::string_view::npos;
  }));
  EXPECT_EQ(readAll(document("letter")), readAll(origin_ + "/letter"));
}

TEST_P(ProviderTest, EvictionsAndReadersGetAlong) {
  provide({{"contested", 300'000}});
  constexpr int rounds = 20;
  std::vector<std::unique_ptr<ChildProcess>> readers;
  for (const char* way : {"read", "mmap", "read"}) {
    readers.push_back(std::make_unique<ChildProcess>(std::vector<std::string>{
        "sh", "-c",
        "for i in $(seq " + std::to_string(rounds) + "); do " + reader(way, "").front() + " " +
            way + " '" + document("contested") + "'; done | sort | uniq -c | tr -s ' '"}));
  }
  for (int i = 0; i < rounds; ++i) evict("contested");
  for (auto& each : readers) EXPECT_EQ(each->readLine(), " " + std::to_string(rounds) + " right");
  EXPECT_TRUE(evict("contested"));
}

TEST_P(ProviderTest, OneThatDiesHalfWayLeavesNothingToRead) {
  provide({{"half", 48'000'000}});
  bool wasHalf = false;
  for (int tries = 0; tries < 10 && !wasHalf; ++tries) {
    ASSERT_TRUE(evict("half"));
    const auto before = blocks("half");
    ChildProcess waiting(reader("read", document("half")));
    ASSERT_TRUE(eventually([&] { return blocks("half") > before; }));
    for (const pid_t each : extensions()) kill(each, SIGKILL);
    const auto heard = waiting.readLine();
    wasHalf = heard != "right";
    if (wasHalf) {
      EXPECT_EQ(heard, "Resource temporarily unavailable");
      EXPECT_TRUE(isPlaceholder("half"));
    }
    EXPECT_EQ(run(reader("read", document("half"))).line, "right");
  }
  EXPECT_TRUE(wasHalf) << "the provider was always faster";
}

IN_BOTH_WAYS(ProviderTest);

}  // namespace
