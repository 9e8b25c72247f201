#pragma once

#include <future>

#include "platform/base/Errors.h"
#include "platform/coordination/FileCoordinationProtocol.h"
#include "platform/extension/ExtensionHost.h"
#include "platform/queue/Clock.h"
#include "providers/DSExtensionDocSource.h"
#include "tests/support/Daemons.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Operations.h"
#include "tests/support/SelfProvider.h"
#include "tests/support/TemporaryRoot.h"
#include "tests/support/Wire.h"

/// Real bundles, real extension processes, and a clock that the test moves; each test has the
/// registry of its process.
class ProvidersTest : public testing::Test {
 protected:
  using Registry = DSExtensionDocSource;
  using LogCapture = qx::test::LogCapture;
  using ProviderBundle = qx::test::ProviderBundle;
  using Lines = std::vector<std::string>;

  ProvidersTest() {
    qx::test::temporaryRoot();
    qx::Clock::setCurrent(clock);
  }
  void SetUp() override {
    ds_default_log().setLowestLevel(qx::LogLevel::debug);
    qx::test::beApplication("com.example.tests", {{fileCoordinationHostEntitlement, true}});
    platform.emplace("platformd", qx::test::temporaryRoot());
    ASSERT_TRUE(qx::test::eventually(
        [] { return qx::test::connectTo(qx::test::coordinationService).socket() >= 0; }));
  }
  void TearDown() override { qx::ExtensionHost::shared().shutdown(); }

  /// Begins discovery and waits for the first refresh.
  static void begin() {
    std::promise<void> called;
    Registry::createInstancesCompletion([&] { called.set_value(); });
    called.get_future().wait();
    // The last that is logged of its own accord.
    EXPECT_TRUE(waitForLine("[INFO] Connected to the file-coordination service."));
  }
  static std::string registered(const ProviderBundle& bundle, const std::string& identifier) {
    return "[INFO] Registered doc source extension " + identifier + " for path " +
           qx::URL::fileURL(bundle.storage(), true).absoluteString();
  }
  static std::ptrdiff_t count(const Lines& lines, const std::string& line) {
    return std::count(lines.begin(), lines.end(), line);
  }
  static bool waitForLine(const std::string& line, std::ptrdiff_t times = 1) {
    return LogCapture::mailbox().waitUntil(
        [&](const auto& lines) { return count(lines, line) >= times; });
  }

  static inline qx::ManualClock& clock = *new qx::ManualClock;
  LogCapture log;
  std::optional<qx::test::Daemon> platform;
};
