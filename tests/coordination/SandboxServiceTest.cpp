#include "platform/platformd/SandboxService.h"

#include <unistd.h>

#include <array>

#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/SandboxProtocol.h"
#include "tests/coordination/Fixture.h"

namespace {

using namespace qx::test;

TEST_F(CoordinationTest, ADescriptorIsHandedOverForAGoodTokenAlone) {
  const auto service = SandboxService::make(std::make_shared<UserAccounts>(1024));
  service->resume();
  Wire wire = connectTo(sandboxService);
  auto token = SandboxIssueFileExtension(qx::sandboxExtensionRead, items / "document", 0);
  ASSERT_TRUE(token);
  const qx::Bytes good(token->begin(), token->end());
  const auto redeemed = wire.call(consumeExtension, {good});
  ASSERT_TRUE(redeemed.at<qx::SharedDescriptor>(1)) << redeemed.outcome();
  const int descriptor = (*redeemed.at<qx::SharedDescriptor>(1))->get();
  std::array<char, 16> content{};
  EXPECT_EQ(::read(descriptor, content.data(), content.size()), 7);
  EXPECT_STREQ(content.data(), "content");
  EXPECT_LT(::write(descriptor, "x", 1), 0);

  std::filesystem::rename(items / "document", items / "moved");
  const auto refused = wire.call(consumeExtension, {good});
  EXPECT_TRUE(refused.error());
  EXPECT_TRUE(refused.isAbsent(1));
  EXPECT_EQ(wire.call(consumeExtension, {qx::Value()}).error(),
            DSInvalidParameterError("token", std::nullopt));
}

}  // namespace
