#pragma once

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "acl/DSAccessControlStore.h"
#include "platform/extension/ExtensionHost.h"
#include "providers/DSExtensionDocSource.h"
#include "servicer/DSConduitServicer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RawPeer.h"
#include "tests/support/SelfProvider.h"
#include "tests/support/TemporaryRoot.h"

/// A servicer whose client is this very process, the shared store, and two providers, "A" and "B",
/// in processes of their own. Operations are called as the connection calls them.
class ServicerFixture : public testing::Test {
 protected:
  using Error = std::optional<qx::Error>;
  using URL = std::optional<qx::URL>;
  using Text = std::optional<std::string>;
  using Lines = std::vector<std::string>;

  struct Server final : DSAccessControlStoreOwner {
    std::shared_ptr<DSAccessControlStore> accessControlStore() const override {
      return DSAccessControlStore::sharedStore();
    }
  };

  ServicerFixture() { qx::test::temporaryRoot(); }

  void SetUp() override {
    a = std::make_unique<qx::test::ProviderBundle>("A");
    b = std::make_unique<qx::test::ProviderBundle>("B");
    connection = QXConduitConnection::overSocket(std::move(ends.first));
    server = std::make_shared<Server>();
    servicer = std::make_shared<DSConduitServicer>();
    servicer->setServer(server);
    servicer->setConnection(connection);
    entitle({{"com.veltro.docsource.acl-read", true}});
    ds_default_log().setLowestLevel(qx::LogLevel::debug);
  }
  void TearDown() override { qx::ExtensionHost::shared().shutdown(); }

  static void entitle(const qx::Dictionary& entitlements) {
    qx::test::beApplication("com.example.self", entitlements);
  }
  void startProviders() const {
    a->install();
    b->install();
    std::promise<void> started;
    DSExtensionDocSource::createInstancesCompletion([&] { started.set_value(); });
    started.get_future().wait();
    LogCapture::mailbox().take();
  }
  using LogCapture = qx::test::LogCapture;

  static void grant(const std::string& provider, const std::string& item,
                    const std::string& consumer) {
    DSAccessControlStore::sharedStore()
        ->allowProviderWithIdentifier_toProvideItemID_toConsumerWithIdentifier(provider, item,
                                                                               consumer);
  }
  static bool isGranted(const std::string& provider, const std::string& item,
                        const std::string& consumer) {
    return DSAccessControlStore::sharedStore()
        ->isProviderWithIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(provider, item,
                                                                                   consumer);
  }

  /// Calls an operation and gives the arguments of its completion. Fails when that is called on
  /// the calling thread: no operation answers from within.
  template <class... Values, class Call>
  static std::tuple<std::optional<Values>...> answerOf(Call call) {
    using Answer = std::tuple<std::optional<Values>...>;
    auto answers = std::make_shared<qx::test::Mailbox<Answer>>();
    call(qx::Completion<Values...>(
        [answers, caller = std::this_thread::get_id()](const std::optional<Values>&... values) {
          EXPECT_NE(std::this_thread::get_id(), caller);
          answers->put({values...});
        }));
    if (!answers->waitForCount(1)) {
      ADD_FAILURE() << "no answer";
      return {};
    }
    return answers->all().front();
  }

  /// Whether a line was logged, once.
  static bool logged(const std::string& line) {
    const auto lines = LogCapture::mailbox().all();
    return std::count(lines.begin(), lines.end(), line) == 1;
  }
  static std::string text(const Error& error) { return error ? error->text() : "(null)"; }

  LogCapture log;
  std::pair<qx::FileDescriptor, qx::FileDescriptor> ends = qx::test::socketPair();
  std::shared_ptr<QXConduitConnection> connection;
  std::shared_ptr<Server> server;
  std::shared_ptr<DSConduitServicer> servicer;
  std::unique_ptr<qx::test::ProviderBundle> a, b;
};
