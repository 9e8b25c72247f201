#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <optional>
#include <string>

#include "tests/support/Daemons.h"
#include "tests/support/Installation.h"

namespace qx::test {

inline const char* const docSourceService = "com.veltro.DocSource";
inline const char* const coordinationService = "com.veltro.FileCoordination";
inline const char* const sandboxService = "com.veltro.Sandbox";

inline const char* const wakeUp = "wakeUpCompletion:";
inline const char* const extendSandbox =
    "extendSandboxForFileURL:fromProviderID:toConsumerID:completionHandler:";
inline const char* const providePlaceholder =
    "providePlaceholderForItemAtURL:fromProviderID:forConsumerID:completionHandler:";
inline const char* const startProviding =
    "startProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:";
inline const char* const stopProviding =
    "stopProvidingItemAtURL:fromProviderID:forConsumerID:completionHandler:";
inline const char* const listProviders = "providersCompletionHandler:";
inline const char* const extendBookmark =
    "extendBookmarkForFileURL:toConsumerID:completionHandler:";
inline const char* const bookmarkableString = "bookmarkableStringFromDocumentURL:completion:";
inline const char* const documentURL = "documentURLFromBookmarkableString:completion:";

inline const char* const vendorSetUp = "_performInitialSetupWithCompletion:";
inline const char* const vendorPlaceholder = "_providePlaceholderAtURL:completion:";
inline const char* const vendorStart = "_startProvidingItemAtURL:completion:";
inline const char* const vendorChanged = "_itemChangedAtURL:completion:";
inline const char* const vendorStop = "_stopProvidingItemAtURL:completion:";
inline const char* const vendorIdentifier = "_identifierForItemAtURL:completion:";
inline const char* const vendorURL = "_URLForItemIdentifier:completion:";

/// An installation, and the daemon that serves it once it is started.
class Broker : public testing::Test {
 protected:
  /// Starts docsourced and waits until it serves its clients.
  void start(const std::map<std::string, std::string>& environment = {}) {
    launch(environment);
    ASSERT_TRUE(installation_.becomesServed(docSourceService));
  }
  void launch(const std::map<std::string, std::string>& environment = {}) {
    daemon_.emplace("docsourced", installation_.root(), environment);
  }
  /// Ends it as a service manager does.
  void stop() {
    EXPECT_EQ(daemon_->end(SIGTERM), 0);
    EXPECT_TRUE(daemon_->everyProcessEnds());
  }

  /// Waits until a provider is registered (again).
  bool isRegistered(const ScriptedProvider& provider, std::size_t times = 1) const {
    return daemon_->logs("[INFO] Registered doc source extension " + provider.identifier() + " ",
                         times);
  }

  Consumer readerAndWriter(const std::string& identifier = "com.example.app") {
    return installation_.installConsumer(identifier,
                                         {{readEntitlement, true}, {writeEntitlement, true}});
  }

  Installation installation_;
  std::optional<Daemon> daemon_;
};

}  // namespace qx::test
