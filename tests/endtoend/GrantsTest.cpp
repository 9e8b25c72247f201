// Grants through their own service: what there is, and that a grant which was taken back is gone in
// every way: from the file, for bookmarks, for tokens, and for what was under way.

#include "tests/endtoend/Broker.h"

namespace qx::test {
namespace {

const char* const provider = "com.example.provider";
const char* const app = "com.example.app";
const char* const reader = "com.example.reader";
const char* const grantsService = "com.veltro.DocSource.Grants";
const char* const listGrants = "grantsCompletion:";
const char* const revoke = "revokeItemWithID:ofProviderID:forConsumerID:completion:";
const Value absent;

class Grants : public Broker {
 protected:
  void SetUp() override {
    start();
    ASSERT_TRUE(isRegistered(provider_));
    startPlatform();
    wire_ = consumer_.connect();
    ASSERT_TRUE(eventually([&] { return outcome(listProviders, {}) == "success"; }));
    service_ = consumer_.connect(grantsService);
  }

  std::string outcome(const std::string& operation, Array arguments) {
    return wire_.call(operation, std::move(arguments)).outcome();
  }
  std::string revoked(const Value& item, const char* consumer) {
    return service_.call(revoke, {item, provider, consumer}).outcome();
  }
  bool redeems(const Bytes& token) const {
    return consumer_.connect(sandboxService).call(consumeExtension, {token}).outcome() == "success";
  }
  Bytes tokenFor(const char* consumer) {
    const auto answer = wire_.call(extendSandbox, {a_, provider, consumer});
    const auto* token = answer.at<Bytes>(1);
    EXPECT_TRUE(token) << answer.outcome();
    return token ? *token : Bytes();
  }
  std::set<std::string> onDisk() const {
    return grantsIn(installation_.accessControlFile()).value();
  }

  ScriptedProvider provider_ = installation_.installProvider(provider);
  Consumer consumer_ = readerAndWriter(app);
  Consumer reader_ = installation_.installConsumer(reader, {{readEntitlement, true}});
  Wire wire_{FileDescriptor()};
  Wire service_{FileDescriptor()};
  const URL a_ = provider_.url("A.txt");
  const std::string bookmark_ = "docsource:" + std::string(provider) + "/item/a";
  const std::string all_ = std::string(provider) + " ";
};

TEST_F(Grants, AreListedAndTakenBackWithTheirTokens) {
  const auto token = tokenFor(app);
  const auto others = tokenFor(reader);
  ASSERT_EQ(outcome(extendSandbox, {provider_.url("B c.txt"), provider, reader}), "success");
  ASSERT_TRUE(redeems(token));
  const auto grant = [](const char* item, const char* consumer, const URL& url) {
    return Value(Dictionary{{"providerIdentifier", provider},
                            {"itemIdentifier", item},
                            {"consumerIdentifier", consumer},
                            {"URL", url}});
  };
  EXPECT_EQ(service_.call(listGrants, {}).values,
            (Array{absent, Array{grant("item/a", app, a_), grant("item/a", reader, a_),
                                 grant("item b", reader, provider_.url("B c.txt"))}}));

  EXPECT_EQ(outcome(documentURL, {bookmark_}), "success");
  EXPECT_EQ(revoked("item/a", app), "success");
  EXPECT_EQ(onDisk(),
            (std::set<std::string>{all_ + reader + " item/a", all_ + reader + " item b"}));
  EXPECT_EQ(outcome(documentURL, {bookmark_}), "DSErrorDomain 3");
  EXPECT_FALSE(redeems(token));
  EXPECT_FALSE(redeems(others)) << "tokens are the document's, whoever they were issued for";
  EXPECT_EQ(revoked("item/a", app), "success") << "none to take back";

  // Who still has a grant resolves the bookmark anew.
  const auto again = reader_.connect().call(documentURL, {bookmark_});
  ASSERT_TRUE(again.at<Bytes>(1)) << again.outcome();
  EXPECT_TRUE(redeems(*again.at<Bytes>(1)));
  EXPECT_EQ(revoked(absent, reader), "success");
  EXPECT_EQ(onDisk(), std::set<std::string>());
  EXPECT_FALSE(redeems(*again.at<Bytes>(1)));

  // Nor do they come back with the daemons.
  EXPECT_EQ(platform_->end(SIGKILL), -SIGKILL);
  EXPECT_EQ(daemon_->end(SIGKILL), -SIGKILL);
  ASSERT_TRUE(installation_.becomesUnserved(sandboxService));
  startPlatform();
  start();
  wire_ = consumer_.connect();
  for (const auto& each : {token, *again.at<Bytes>(1)}) EXPECT_FALSE(redeems(each));
  EXPECT_TRUE(redeems(tokenFor(app)));
}

TEST_F(Grants, UnderWayDoNotComeBack) {
  tokenFor(app);
  // A grant, and then the use of one, each waiting for the provider when the grant is taken back.
  for (const auto& [waiting, operation, arguments] :
       {std::tuple(vendorIdentifier, extendSandbox, Array{a_, provider, app}),
        std::tuple(vendorURL, documentURL, Array{bookmark_})}) {
    tokenFor(app);
    const auto before = provider_.calls(waiting);
    provider_.behave({{waiting, "hold"}});
    Wire late = consumer_.connect();
    const auto lateCall = late.begin(operation, arguments);
    ASSERT_TRUE(eventually([&, w = waiting] { return provider_.calls(w) == before + 1; }));
    const auto revoking = service_.begin(revoke, {"item/a", provider, app});
    ASSERT_TRUE(eventually([&] { return onDisk().empty(); }));
    provider_.behave({});
    EXPECT_EQ(late.answer(lateCall).outcome(), "DSErrorDomain 3") << operation;
    EXPECT_EQ(service_.answer(revoking).outcome(), "success");
    EXPECT_EQ(onDisk(), std::set<std::string>()) << operation;
  }
}

TEST_F(Grants, AreNotForEverybodyAndTellWhatIsMissing) {
  const auto token = tokenFor(app);
  Wire other = reader_.connect(grantsService);
  EXPECT_EQ(other.call(listGrants, {}).outcome(), "DSErrorDomain 6");
  EXPECT_EQ(other.call(revoke, {"item/a", provider, app}).outcome(), "DSErrorDomain 6");
  EXPECT_EQ(service_.call(revoke, {"item/a", absent, app}).outcome(), "DSErrorDomain 4");
  EXPECT_EQ(service_.call(revoke, {"item/a", provider, absent}).outcome(), "DSErrorDomain 4");
  EXPECT_EQ(onDisk().size(), 1U);

  // A grant whose provider cannot name the document any more is taken back with every token.
  installation_.remove(provider_.bundle());
  EXPECT_TRUE(eventually([&] {
    return outcome(startProviding, {a_, provider, app}) == "DSErrorDomain 1";
  }));
  ASSERT_TRUE(redeems(token));
  EXPECT_EQ(revoked("item/a", app), "success");
  EXPECT_EQ(onDisk(), std::set<std::string>());
  EXPECT_FALSE(redeems(token));
}

}  // namespace
}  // namespace qx::test
