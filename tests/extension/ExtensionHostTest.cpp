#include "platform/extension/ExtensionHost.h"

#include "platform/base/Errors.h"
#include "platform/base/FileDescriptor.h"
#include "platform/identity/Bundles.h"
#include "platform/queue/Clock.h"
#include "tests/support/Gate.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SelfProvider.h"
#include "tests/support/TemporaryRoot.h"

namespace {

namespace fs = std::filesystem;
using namespace qx::test;
using qx::Dictionary;
using qx::ExtensionHost;
using qx::UUID;
using std::chrono::milliseconds;
using std::chrono::seconds;

using Extensions = std::vector<std::shared_ptr<QXExtension>>;

/// Real processes, and a clock that the test moves.
class ExtensionHostTest : public testing::Test {
 protected:
  ExtensionHostTest() {
    temporaryRoot();
    qx::Clock::setCurrent(clock);
    ds_default_log().setLowestLevel(qx::LogLevel::info);
  }
  void TearDown() override { ExtensionHost::shared().shutdown(); }

  static void install(const std::string& name) { ProviderBundle(name).install(); }
  static std::string path(const std::string& name) { return ProviderBundle(name).path(); }

  /// Matches from now on; every array that comes is kept.
  void match() {
    QXExtension::beginMatchingExtensionsWithAttributes_completion(
        {{QXExtensionPointName, docSourceExtensionPoint}},
        [matched = matched](Extensions extensions, const auto& error) {
          EXPECT_FALSE(error);
          matched->put(std::move(extensions));
        });
  }
  Extensions waitForArray(std::size_t number) const {
    if (!matched->waitForCount(number)) return {};
    return matched->all()[number - 1];
  }
  /// Of an extension that behaves as these files in its bundle say.
  std::shared_ptr<QXExtension> installAndMatch(const std::vector<const char*>& behaviours = {}) {
    fs::create_directories(path("E"));
    for (const char* behaviour : behaviours) std::ofstream(path("E") + "/" + behaviour).put(' ');
    install("E");
    match();
    const auto extensions = waitForArray(1);
    return extensions.empty() ? nullptr : extensions.front();
  }

  struct Request {
    std::optional<UUID> id;
    std::optional<qx::Error> error;
  };
  static Request begin(QXExtension& extension) {
    Mailbox<Request> answers;
    extension.beginExtensionRequestWithInputItems_completion(
        std::nullopt, [&](const auto& id, const auto& error) {
          answers.put({id, error});
        });
    answers.waitForCount(1);
    return answers.all().front();
  }
  /// A proxy for an open request; what fails on it is kept.
  std::shared_ptr<_QXDocSourceVendor> proxy(QXExtension& extension, const Request& request) {
    const auto context = extension._extensionContextForUUID(request.id);
    if (!context) return nullptr;
    return context->_auxiliaryConnection()->remoteObjectProxyWithErrorHandler<_QXDocSourceVendor>(
        [failures = failures](const qx::Error& error) { failures->put(error.text()); });
  }
  /// The number of the process that answers; 0 when none does.
  pid_t processOf(QXExtension& extension, const Request& request) {
    const auto vendor = proxy(extension, request);
    if (!vendor) return 0;
    Mailbox<pid_t> answers;
    vendor->_performInitialSetupWithCompletion(
        [&](const auto& process, const auto&, const auto&) { answers.put(std::stoi(*process)); });
    return answers.waitForCount(1) ? answers.all().front() : 0;
  }
  bool waitForLostCalls(std::size_t number) const {
    return failures->waitUntil([&](const auto& errors) {
      return std::count_if(errors.begin(), errors.end(), [](const std::string& error) {
               return error.starts_with("QXConduitErrorDomain 4");
             }) == static_cast<std::ptrdiff_t>(number);
    });
  }
  static bool waitForLine(pid_t process, const std::string& end) {
    const auto line = "(process " + std::to_string(process) + ") " + end;
    return LogCapture::mailbox().waitUntil([&](const auto& lines) {
      return std::any_of(lines.begin(), lines.end(), [&](const std::string& each) {
        return each.find(line) != std::string::npos;
      });
    });
  }
  static bool isRunning(pid_t process) { return kill(process, 0) == 0; }

  static inline qx::ManualClock& clock = *new qx::ManualClock;
  LogCapture log;
  std::shared_ptr<Mailbox<Extensions>> matched = std::make_shared<Mailbox<Extensions>>();
  std::shared_ptr<Mailbox<std::string>> failures = std::make_shared<Mailbox<std::string>>();
};

TEST_F(ExtensionHostTest, RequestsShareAProcessUntilItIsIdle) {
  const auto extension = installAndMatch();
  const auto one = begin(*extension), two = begin(*extension);
  ASSERT_TRUE(one.id && two.id);
  EXPECT_NE(one.id, two.id);
  const pid_t process = processOf(*extension, one);
  ASSERT_GT(process, 0);
  EXPECT_EQ(processOf(*extension, two), process);
  EXPECT_NE(extension->_extensionContextForUUID(one.id),
            extension->_extensionContextForUUID(two.id));
  EXPECT_FALSE(extension->_extensionContextForUUID(UUID::random()));
  EXPECT_FALSE(extension->_extensionContextForUUID(std::nullopt));

  extension->cancelExtensionRequestWithIdentifier(std::nullopt);
  extension->cancelExtensionRequestWithIdentifier(UUID::random());
  const auto kept = proxy(*extension, one);
  extension->cancelExtensionRequestWithIdentifier(one.id);
  EXPECT_FALSE(extension->_extensionContextForUUID(one.id));
  kept->_stopProvidingItemAtURL_completion(
      qx::URL("file:///x"), [](const auto&) { ADD_FAILURE() << "the request is over"; });
  EXPECT_TRUE(waitForLostCalls(1));

  // An open request keeps it, however long; and another one within the time begins it anew.
  clock.advance(seconds(60));
  EXPECT_EQ(processOf(*extension, two), process);
  extension->cancelExtensionRequestWithIdentifier(two.id);
  clock.advance(milliseconds(9999));
  const auto three = begin(*extension);
  EXPECT_EQ(processOf(*extension, three), process);
  extension->cancelExtensionRequestWithIdentifier(three.id);
  clock.advance(milliseconds(9999));
  EXPECT_TRUE(isRunning(process));
  EXPECT_EQ(log.count("is idle"), 0U);
  clock.advance(milliseconds(1));
  EXPECT_TRUE(waitForLine(process, "ended with status 0."));

  const pid_t next = processOf(*extension, begin(*extension));
  EXPECT_GT(next, 0);
  EXPECT_NE(next, process);
}

TEST_F(ExtensionHostTest, AStubbornOneIsKilledAfterFiveSeconds) {
  const auto extension = installAndMatch({"stubborn", "deaf"});
  const auto request = begin(*extension);
  const pid_t process = processOf(*extension, request);
  extension->cancelExtensionRequestWithIdentifier(request.id);
  clock.advance(seconds(10));
  // Nobody waits for it: the next request has a process of its own.
  const auto next = begin(*extension);
  const pid_t other = processOf(*extension, next);
  EXPECT_GT(other, 0);
  EXPECT_NE(other, process);
  clock.advance(milliseconds(4999));
  EXPECT_TRUE(waitForLine(process, "does not end; sending it signal 15."));
  EXPECT_TRUE(isRunning(process));
  clock.advance(milliseconds(1));
  EXPECT_TRUE(waitForLine(process, "was ended by signal 9."));
  EXPECT_EQ(processOf(*extension, next), other);
}

TEST_F(ExtensionHostTest, WhatCannotBeStartedSaysWhy) {
  // A file that may be executed, but is no program.
  makeBundle(path("bad"), "bad");
  std::ofstream(path("bad") + "/program") << "?";
  auto info = bundleInfo("bad", "program");
  info.emplace("QXExtension", Dictionary{{"QXExtensionPointName", docSourceExtensionPoint}});
  writeList(path("bad") + "/Info.plist", info);
  match();
  ASSERT_TRUE(matched->waitUntil(
      [](const auto& arrays) { return !arrays.empty() && arrays.back().size() == 1; }));
  const auto extension = matched->all().back().front();
  const auto failed = begin(*extension);
  ASSERT_TRUE(failed.error);
  EXPECT_TRUE(failed.error->is(QXExtensionErrorDomain, 2));
  EXPECT_TRUE(failed.error->underlyingError()->is(QXPOSIXErrorDomain, ENOEXEC));
  EXPECT_FALSE(failed.id);
  fs::remove_all(path("bad"));
  EXPECT_TRUE(begin(*extension).error->is(QXExtensionErrorDomain, 1));
}

TEST_F(ExtensionHostTest, AReplacedOneEndsWithItsLastRequest) {
  const auto old = installAndMatch();
  const auto request = begin(*old);
  const pid_t process = processOf(*old, request);
  install("E");
  const auto extensions = waitForArray(2);
  ASSERT_EQ(extensions.size(), 1U);
  const auto next = begin(*extensions.front());
  const pid_t other = processOf(*extensions.front(), next);
  EXPECT_NE(other, process);
  // The old request goes on; a new one of whoever does not know yet is for the new installation.
  EXPECT_EQ(processOf(*old, request), process);
  const auto late = begin(*old);
  EXPECT_EQ(processOf(*old, late), other);
  old->cancelExtensionRequestWithIdentifier(request.id);
  EXPECT_TRUE(waitForLine(process, "ended with status 0."));
  EXPECT_EQ(processOf(*extensions.front(), next), other);
}

TEST_F(ExtensionHostTest, KeepsRunningWhatAsksForIt) {
  const ProviderBundle bundle("E");
  bundle.install(qx::Value(bundle.group()), true);
  match();
  const auto extension = waitForArray(1).front();
  // Started as soon as it is known; after a second, then after twice as long, when it has died.
  const auto waitForStart = [](std::size_t number) {
    return LogCapture::mailbox().waitUntil([number](const auto& lines) {
      return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
               return line.find("Started extension E ") != std::string::npos;
             }) == static_cast<std::ptrdiff_t>(number);
    });
  };
  std::size_t starts = 1;
  for (const int delay : {1, 2, 4, 8, 16, 32, 60, 60}) {
    ASSERT_TRUE(waitForStart(starts++));
    const auto request = begin(*extension);
    const auto process = processOf(*extension, request);
    ASSERT_NE(process, 0);
    kill(process, SIGKILL);
    ASSERT_TRUE(waitForLine(process, "was ended by signal 9."));
    clock.waitForActionIn(seconds(delay));
    clock.advance(seconds(delay) - milliseconds(1));
    EXPECT_EQ(LogCapture::count("Started extension E"), starts - 1);
    clock.advance(milliseconds(1));
  }
  // It is never idle, and ends when it is uninstalled.
  ASSERT_TRUE(waitForStart(starts));
  const auto last = begin(*extension);
  const auto process = processOf(*extension, last);
  extension->cancelExtensionRequestWithIdentifier(last.id);
  clock.advance(seconds(120));
  EXPECT_TRUE(isRunning(process));
  bundle.remove();
  EXPECT_TRUE(waitForLine(process, "ended with status 0."));
}

TEST_F(ExtensionHostTest, ASlowStartHoldsUpNobodyElse) {
  // A program that somebody has a lease of is not executed before he gives it up (fcntl(2)).
  signal(SIGIO, SIG_IGN);
  install("quick");
  const auto program = path("slow") + "/program";
  fs::create_directories(path("slow"));
  fs::copy_file(ownProgram(), program);
  auto info = bundleInfo("slow", program);
  info.emplace("QXExtension", Dictionary{{"QXExtensionPointName", docSourceExtensionPoint}});
  const qx::FileDescriptor lease(open(program.c_str(), O_RDONLY | O_CLOEXEC));
  if (fcntl(lease.get(), F_SETLEASE, F_WRLCK) != 0) GTEST_SKIP() << "no leases on this file system";
  writeList(path("slow") + "/Info.plist", info);
  match();
  const auto extensions = waitForArray(1);
  ASSERT_EQ(extensions.size(), 2U);

  Mailbox<Request> late;
  for (int i = 0; i < 2; ++i) {
    extensions[1]->beginExtensionRequestWithInputItems_completion(
        std::nullopt, [&](const auto& id, const auto& error) {
          late.put({id, error});
        });
  }
  EXPECT_NE(processOf(*extensions[0], begin(*extensions[0])), 0);
  EXPECT_TRUE(late.all().empty());
  EXPECT_EQ(fcntl(lease.get(), F_SETLEASE, F_UNLCK), 0);
  ASSERT_TRUE(late.waitForCount(2));
  const auto requests = late.all();
  EXPECT_NE(processOf(*extensions[1], requests[0]), 0);
  EXPECT_EQ(processOf(*extensions[1], requests[0]), processOf(*extensions[1], requests[1]));
}

}  // namespace
