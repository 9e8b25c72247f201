#include "platform/coordination/QXFileCoordinator.h"

#include "tests/coordination/Fixture.h"

namespace {

using namespace qx::test;
using qx::URL;

class Source final : public QXDocSource {
 public:
  Source(std::optional<std::string> identifier, std::optional<URL> url)
      : identifier_(std::move(identifier)), url_(std::move(url)) {}

  std::optional<URL> _providedItemsURL() override { return url_; }
  std::shared_ptr<qx::OperationQueue> _providedItemsOperationQueue() override { return queue_; }
  std::optional<std::string> _fileReactorID() override { return identifier_; }
  void _provideItemAtURL_completionHandler(const std::optional<URL>&,
                                           qx::Completion<qx::Error>) override {
    ADD_FAILURE() << "the deprecated form was called";
  }
  void _provideItemAtURL_toReaderWithID_completionHandler(
      const std::optional<URL>& url, const std::optional<std::string>& reader,
      qx::Completion<qx::Error> completion) override {
    provides.put(url->absoluteString() + " " + *reader);
    completion(std::nullopt);
  }
  void _writerWithID_didFinishWritingForURL(const std::optional<std::string>& /*writer*/,
                                            const std::optional<URL>& /*url*/) override {}

  Mailbox<std::string> provides;

 private:
  const std::optional<std::string> identifier_;
  const std::optional<URL> url_;
  const std::shared_ptr<qx::OperationQueue> queue_ = std::make_shared<qx::OperationQueue>();
};

class QXFileCoordinatorTest : public CoordinationTest {
 protected:
  void SetUp() override {
    CoordinationTest::SetUp();
    ds_default_log().setLowestLevel(qx::LogLevel::info);
  }
  std::shared_ptr<Source> add(const std::string& identifier) {
    auto source = std::make_shared<Source>(identifier, directory);
    QXFileCoordinator::_addDocSource(source);
    return source;
  }
  /// Waits until the service, in this process, has taken that many doc sources.
  bool areRegistered(std::size_t count) {
    return log.mailbox().waitUntil([count](const auto& lines) {
      std::size_t seen = 0;
      for (const auto& line : lines) {
        if (line.starts_with("[INFO] Coordinating ")) ++seen;
      }
      return seen >= count;
    });
  }

  LogCapture log;
};

TEST_F(QXFileCoordinatorTest, RegistersEverythingWheneverTheServiceIsThere) {
  auto source = add("com.example.source");
  TemporaryDirectory elsewhere;
  auto other = std::make_shared<Source>("com.example.other", URL::fileURL(elsewhere.path(), true));
  QXFileCoordinator::_addDocSource(other);
  ASSERT_TRUE(log.mailbox().waitUntil([](const auto& lines) { return !lines.empty(); }));
  for (std::size_t round = 1; round <= 3; ++round) {
    auto service = startService();
    ASSERT_TRUE(areRegistered(2 * round));
    {
      Client client;
      EXPECT_EQ(client.read(items / "document"), success);
      EXPECT_TRUE(source->provides.waitForCount(round));
    }
    service.reset();
    ASSERT_TRUE(log.mailbox().waitUntil([round](const auto& lines) {
      return static_cast<std::size_t>(std::count(
                 lines.begin(), lines.end(),
                 "[NOTICE] The connection to the file-coordination service was lost.")) == round;
    })) << testing::PrintToString(log.mailbox().all());
  }
  EXPECT_EQ(log.count("[NOTICE] The file-coordination service is not there yet"), 1u);
  EXPECT_EQ(log.count("[NOTICE] The file-coordination service is there."), 3u);
}

TEST_F(QXFileCoordinatorTest, RemovesOnlyTheObjectThatHasTheIdentifier) {
  auto service = startService();
  auto first = add("com.example.source");
  auto second = add("com.example.source");
  ASSERT_TRUE(areRegistered(2));
  QXFileCoordinator::_removeDocSource(first);
  QXFileCoordinator::_addDocSource(std::make_shared<Source>("no directory", std::nullopt));
  QXFileCoordinator::_addDocSource(std::make_shared<Source>(std::nullopt, directory));
  auto last = std::make_shared<Source>("com.example.last", URL::fileURL(items / "last", true));
  QXFileCoordinator::_addDocSource(last);
  ASSERT_TRUE(areRegistered(3));
  Client client;
  EXPECT_EQ(client.read(items / "document"), success);
  EXPECT_EQ(second->provides.all().size(), 1u);
  EXPECT_TRUE(first->provides.all().empty());

  QXFileCoordinator::_removeDocSource(second);
  ASSERT_TRUE(log.mailbox().waitFor("[INFO] Doc source com.example.source was removed."));
  EXPECT_EQ(client.read(items / "document"), success);
  EXPECT_EQ(second->provides.all().size(), 1u);
  EXPECT_EQ(log.count("[INFO] Coordinating "), 3u);
}

TEST_F(QXFileCoordinatorTest, ARefusalIsLogged) {
  beNobody();
  auto service = startService();
  add("com.example.source");
  EXPECT_TRUE(log.mailbox().waitUntil([](const auto& lines) {
    return std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
      return line.starts_with(
          "[ERROR] Could not add doc source com.example.source to the "
          "file-coordination service. Error: DSErrorDomain 6: ");
    });
  }));
}

}  // namespace
