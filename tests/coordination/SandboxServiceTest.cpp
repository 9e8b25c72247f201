#include "platform/platformd/SandboxService.h"

#include <unistd.h>

#include <array>

#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/SandboxProtocol.h"
#include "tests/coordination/Fixture.h"

namespace {

using namespace qx::test;

class SandboxServiceTest : public CoordinationTest {
 protected:
  using Answer = std::pair<std::optional<qx::Error>, std::optional<qx::SharedDescriptor>>;

  void SetUp() override {
    CoordinationTest::SetUp();
    service->resume();
    auto connected = QXConduitConnection::connectToService(std::string(qx::sandboxServiceName));
    ASSERT_TRUE(connected);
    connection = *connected;
    connection->setRemoteObjectInterface(QXConduitInterface::interfaceWithProtocol<QXSandbox>());
    connection->resume();
  }

  Answer redeem(const std::optional<qx::Bytes>& token) {
    auto answers = std::make_shared<Mailbox<Answer>>();
    connection
        ->remoteObjectProxyWithErrorHandler<QXSandbox>([answers](const qx::Error& error) {
          answers->put({error, std::nullopt});
        })
        ->consumeExtension_completion(token, [answers](const auto& error, const auto& descriptor) {
          answers->put({error, descriptor});
        });
    EXPECT_TRUE(answers->waitForCount(1));
    return answers->all().front();
  }

  std::shared_ptr<SandboxService> service = (temporaryRoot(), SandboxService::make());
  std::shared_ptr<QXConduitConnection> connection;
};

TEST_F(SandboxServiceTest, HandsOverTheDescriptorForAGoodTokenAlone) {
  auto token = SandboxIssueFileExtension(qx::sandboxExtensionRead, items / "document", 0);
  ASSERT_TRUE(token);
  qx::Bytes bytes(token->begin(), token->end());
  auto [error, descriptor] = redeem(bytes);
  EXPECT_FALSE(error);
  ASSERT_TRUE(descriptor && *descriptor);
  std::array<char, 16> content{};
  EXPECT_EQ(::read((*descriptor)->get(), content.data(), content.size()), 7);
  EXPECT_STREQ(content.data(), "content");
  EXPECT_LT(::write((*descriptor)->get(), "x", 1), 0);

  auto altered = bytes;
  altered[altered.size() / 2] ^= 1;
  std::filesystem::rename(items / "document", items / "moved");
  for (const auto& bad : {std::optional(bytes), std::optional(altered), std::optional(qx::Bytes()),
                          std::optional(qx::Bytes(1 << 20, 'x')), std::optional<qx::Bytes>()}) {
    auto refused = redeem(bad);
    EXPECT_TRUE(refused.first);
    EXPECT_FALSE(refused.second);
  }
  EXPECT_EQ(redeem(std::nullopt).first, DSInvalidParameterError("token", std::nullopt));
}

}  // namespace
