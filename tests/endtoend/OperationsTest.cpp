// What a client gets from each operation, when it works and when it does not.

#include <filesystem>
#include <fstream>

#include "platform/files/FileManager.h"
#include "platform/plist/PropertyList.h"
#include "tests/endtoend/Broker.h"
#include "tests/support/BundleMaker.h"

namespace qx::test {
namespace {

const Value absent;
const char* const provider = "com.example.provider";
const char* const other = "com.example.other";
const char* const app = "com.example.app";
const char* const friendly = "com.example.friend";
/// Known to nobody but the access-control file.
const char* const gone = "com.example.gone";

class Operations : public Broker {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(installation_ / "Home/Library/DocSource");
    const auto items = [](Array identifiers) {
      return Dictionary{{app, Dictionary{{"AllowedItemIDs", std::move(identifiers)}}}};
    };
    writeList(installation_.accessControlFile(),
              Dictionary{{gone, items({"x"})}, {other, items({"no such item"})}});
    start();
    wire_ = consumer_.connect();
  }

  std::string outcome(const std::string& operation, Array arguments) {
    return wire_.call(operation, std::move(arguments)).outcome();
  }

  /// What the access-control file grants of a provider to a consumer.
  Array granted(const std::string& providerID, const std::string& consumerID) const {
    auto list = PropertyList::readFile(installation_.accessControlFile());
    const auto* entry = list ? find<Dictionary>(*list->as<Dictionary>(), providerID) : nullptr;
    const auto* items = entry ? find<Dictionary>(*entry, consumerID) : nullptr;
    const auto* identifiers = items ? find<Array>(*items, "AllowedItemIDs") : nullptr;
    return identifiers ? *identifiers : Array();
  }

  std::string content(const std::string& name) const {
    auto text = FileManager::readFile(provider_.document(name));
    return text ? *text : "(unreadable)";
  }

  ScriptedProvider provider_ = installation_.installProvider(provider);
  ScriptedProvider other_ = installation_.installProvider(other);
  Consumer consumer_ = readerAndWriter(app);
  Wire wire_{FileDescriptor()};
  const URL a_ = provider_.url("A.txt");
};

TEST_F(Operations, WakeUpAndListTheProviders) {
  EXPECT_EQ(outcome(wakeUp, {}), "success");

  const auto listing = wire_.call(listProviders, {});
  ASSERT_EQ(listing.values.size(), 2U);
  EXPECT_TRUE(listing.isAbsent(0));
  const auto information = [](const ScriptedProvider& of) {
    return Dictionary{{"documentStorageURL", URL::fileURL(of.storage(), true)},
                      {"providerIdentifier", of.identifier()}};
  };
  EXPECT_EQ(listing.values[1],
            Value(Dictionary{{provider, information(provider_)}, {other, information(other_)}}));
}

TEST_F(Operations, ServeADocumentFromGrantToStop) {
  const auto extended = wire_.call(extendSandbox, {a_, provider, friendly});
  ASSERT_EQ(extended.values.size(), 4U) << extended.outcome();
  EXPECT_EQ(extended.outcome(), "success");
  ASSERT_TRUE(extended.at<Bytes>(1));
  EXPECT_EQ(std::count(extended.at<Bytes>(1)->begin(), extended.at<Bytes>(1)->end(), 0), 0);
  EXPECT_EQ(extended.values[2], Value(provider_.url(".A.txt")));
  EXPECT_TRUE(extended.isAbsent(3));  // there is no sibling yet
  EXPECT_EQ(granted(provider, friendly), Array{"item/a"});

  EXPECT_EQ(outcome(providePlaceholder, {a_, provider, friendly}), "success");
  EXPECT_TRUE(std::filesystem::exists(provider_.document(".A.txt")));
  EXPECT_EQ(outcome(startProviding, {a_, provider, friendly}), "success");
  EXPECT_EQ(content("A.txt"), "content of item/a");
  const auto again = wire_.call(extendSandbox, {a_, provider, friendly});
  EXPECT_TRUE(again.at<Bytes>(3));
  EXPECT_EQ(granted(provider, friendly), Array{"item/a"});
  EXPECT_EQ(outcome(stopProviding, {a_, provider, friendly}), "success");
  EXPECT_EQ(content("A.txt"), "");

  const auto escaped = wire_.call(extendSandbox, {provider_.url("B c.txt"), provider, friendly});
  ASSERT_TRUE(escaped.at<URL>(2));
  EXPECT_TRUE(escaped.at<URL>(2)->absoluteString().ends_with("/.B%20c.txt"));
  EXPECT_EQ(granted(provider, friendly), (Array{"item/a", "item b"}));
}

TEST_F(Operations, MakeAndResolveBookmarkableStrings) {
  const auto made = wire_.call(extendBookmark, {a_, app});
  EXPECT_EQ(made.values, (Array{"docsource:com.example.provider/item/a", absent}));
  EXPECT_EQ(granted(provider, app), Array{"item/a"});
  EXPECT_EQ(wire_.call(bookmarkableString, {a_}).values, made.values);

  const auto resolved = wire_.call(documentURL, {made.values.front()});
  ASSERT_EQ(resolved.values.size(), 5U);
  EXPECT_EQ(resolved.outcome(), "success");
  EXPECT_EQ(resolved.values[0], Value(a_));
  EXPECT_TRUE(resolved.at<Bytes>(1));
  EXPECT_EQ(resolved.values[2], Value(provider_.url(".A.txt")));

  // To make a string for another is no grant for oneself.
  const auto forFriend = wire_.call(extendBookmark, {provider_.url("B c.txt"), friendly});
  EXPECT_EQ(granted(provider, friendly), Array{"item b"});
  EXPECT_EQ(outcome(documentURL, {forFriend.values.front()}), "DSErrorDomain 3");
}

TEST_F(Operations, AreRefusedToClientsWithoutTheirEntitlements) {
  const auto reader = installation_.installConsumer("com.example.reader", {{readEntitlement, 1}});
  const auto writer =
      installation_.installConsumer("com.example.writer", {{writeEntitlement, true}});
  const auto stranger = installation_.installConsumer(
      "com.example.stranger", {{readEntitlement, false}, {writeEntitlement, "yes"}});
  ASSERT_TRUE(eventually([&] {
    return reader.connect().call(listProviders, {}).outcome() == "success" &&
           writer.connect().call(listProviders, {}).outcome() == "success";
  }));

  // All three at once, each on a connection of its own.
  Wire asReader = reader.connect(), asWriter = writer.connect(), asStranger = stranger.connect();
  const auto outcomes = [&](const std::string& operation, const Array& arguments) {
    Array result;
    std::vector<std::pair<Wire*, std::int64_t>> calls;
    for (Wire* each : {&asReader, &asWriter, &asStranger}) {
      calls.emplace_back(each, each->begin(operation, arguments));
    }
    for (auto [wire, id] : calls) result.emplace_back(wire->answer(id).outcome());
    return result;
  };
  const std::string lacks = "DSErrorDomain 6";
  EXPECT_EQ(outcomes(extendSandbox, {a_, provider, friendly}), (Array{lacks, "success", lacks}));
  EXPECT_EQ(outcomes(providePlaceholder, {a_, provider, friendly}),
            (Array{"success", "success", lacks}));
  EXPECT_EQ(outcomes(startProviding, {a_, provider, friendly}),
            (Array{"success", "success", lacks}));
  EXPECT_EQ(outcomes(stopProviding, {a_, provider, friendly}),
            (Array{"success", "success", lacks}));
  EXPECT_EQ(outcomes(listProviders, {}), (Array{"success", "success", lacks}));
  EXPECT_EQ(outcomes(wakeUp, {}), (Array{"success", "success", "success"}));
  EXPECT_EQ(outcomes(bookmarkableString, {a_}), (Array{"success", "success", "success"}));

  const auto refusal = asStranger.call(listProviders, {});
  EXPECT_EQ(refusal.values.size(), 2U);
  EXPECT_TRUE(refusal.isAbsent(1));
  EXPECT_FALSE(refusal.error()->info().contains("entitlement"));
  EXPECT_TRUE(daemon_->logs("fault: [ERROR] Rejecting request from PID " +
                            std::to_string(stranger.id()) +
                            " because it does not have any of these entitlements: "
                            "(com.veltro.docsource.acl-read, com.veltro.docsource.acl-write)"));
  EXPECT_TRUE(daemon_->logs("Rejecting request from PID " + std::to_string(reader.id()) +
                            " because it does not have any of these entitlements: "
                            "(com.veltro.docsource.acl-write)"));
  EXPECT_TRUE(daemon_->logs("[DEBUG] providersCompletionHandler:: Client is missing entitlement"));
}

TEST_F(Operations, FollowTheBundleOfAClientThatStaysConnected) {
  EXPECT_EQ(outcome(listProviders, {}), "success");
  const std::string entitlements =
      installation_ / ("Applications/" + std::string(app) + ".app/Entitlements.plist");
  writeList(entitlements, Dictionary{{readEntitlement, false}});
  EXPECT_TRUE(eventually([&] { return outcome(listProviders, {}) == "DSErrorDomain 6"; }));
  writeList(entitlements, Dictionary{{readEntitlement, true}});
  EXPECT_TRUE(eventually([&] { return outcome(listProviders, {}) == "success"; }));
  EXPECT_EQ(outcome(extendSandbox, {a_, provider, friendly}), "DSErrorDomain 6");

  // The bundle put in its place has another executable: the process that runs is not of it.
  const auto successor = readerAndWriter(app);
  EXPECT_TRUE(eventually([&] { return outcome(listProviders, {}) == "DSErrorDomain 6"; }));
  EXPECT_TRUE(eventually(
      [&] { return successor.connect().call(listProviders, {}).outcome() == "success"; }));
}

TEST_F(Operations, NameTheFirstAbsentArgument) {
  struct Case {
    Array arguments;
    std::string parameter;
  };
  const std::vector<Case> cases{{{absent, provider, friendly}, "URL"},
                                {{a_, absent, friendly}, "providerID"},
                                {{a_, provider, absent}, "consumerID"},
                                {{absent, absent, absent}, "URL"}};
  for (const auto& [arguments, parameter] : cases) {
    for (const char* operation : {extendSandbox, providePlaceholder}) {
      const auto answer = wire_.call(operation, arguments);
      EXPECT_EQ(answer.outcome(), "DSErrorDomain 4") << operation;
      EXPECT_EQ(answer.error()->info().at("parameter"), Value(parameter)) << operation;
      EXPECT_FALSE(answer.error()->info().contains("value")) << operation;
    }
    // These tell the client no more than that the provider was not found.
    for (const char* operation : {startProviding, stopProviding}) {
      const auto answer = wire_.call(operation, arguments);
      EXPECT_EQ(answer.outcome(), "DSErrorDomain 1") << operation;
      const auto info = answer.error()->info();
      EXPECT_EQ(info.contains("identifier") ? info.at("identifier") : absent, arguments[1]);
    }
  }
  EXPECT_EQ(outcome(extendBookmark, {a_, absent}), "DSErrorDomain 3");
  EXPECT_EQ(outcome(extendBookmark, {absent, app}), "DSErrorDomain 3");
  EXPECT_EQ(outcome(documentURL, {absent}), "DSErrorDomain 5");
  EXPECT_EQ(wire_.call(bookmarkableString, {absent}).values, (Array{absent, absent}));
}

TEST_F(Operations, FindTheProviderByNameOrByURL) {
  for (const char* operation : {extendSandbox, providePlaceholder, startProviding, stopProviding}) {
    const auto answer = wire_.call(operation, {a_, "com.example.unknown", friendly});
    EXPECT_EQ(answer.outcome(), "DSErrorDomain 1") << operation;
    EXPECT_EQ(answer.error()->info().at("identifier"), Value("com.example.unknown")) << operation;
  }

  // The document of one provider, another one named: whoever is named is asked where nothing but
  // the name counts, and does not know the document; where the URL counts the client learns
  // nothing, and the log all.
  const std::string unknown = "DSErrorDomain 8 (DSErrorDomain 8 (ScriptedProvider 7))";
  EXPECT_EQ(outcome(extendSandbox, {a_, other, friendly}), unknown);
  EXPECT_EQ(outcome(providePlaceholder, {a_, other, friendly}), unknown);
  EXPECT_EQ(other_.calls(vendorIdentifier), 2U);
  EXPECT_EQ(granted(other, friendly), Array());
  EXPECT_EQ(outcome(startProviding, {a_, other, friendly}), "DSErrorDomain 1");
  EXPECT_EQ(outcome(stopProviding, {a_, other, friendly}), "DSErrorDomain 1");
  EXPECT_TRUE(daemon_->logs("[ERROR] Cannot provide item at URL " + a_.absoluteString() +
                            " from provider ID com.example.other to consumer ID "
                            "com.example.friend. Error: DSErrorDomain 4: "));
  EXPECT_TRUE(daemon_->logs("[ERROR] Could not stop providing item at URL " + a_.absoluteString()));

  const URL outside = URL::fileURL(installation_ / "Home/letter");
  std::ofstream(installation_ / "Home/letter") << "to whom it may concern";
  for (const URL& url : {outside, URL::fileURL(provider_.storage(), true),
                         URL::fileURL(provider_.storage() + "/../secret")}) {
    EXPECT_EQ(outcome(startProviding, {url, provider, friendly}), "DSErrorDomain 1");
    EXPECT_EQ(wire_.call(bookmarkableString, {url}).values, (Array{absent, absent}));
  }
  const auto answer = wire_.call(extendBookmark, {outside, app});
  EXPECT_EQ(answer.outcome(), "DSErrorDomain 2");
  EXPECT_EQ(answer.error()->info().at("URL"), Value(outside));
  EXPECT_TRUE(answer.isAbsent(0));
}

TEST_F(Operations, ReportWhatTheProviderReports) {
  ASSERT_EQ(outcome(extendSandbox, {a_, provider, app}), "success");
  const std::string once = "DSErrorDomain 8 (ScriptedProvider 7)";
  const std::string twice = "DSErrorDomain 8 (" + once + ")";

  provider_.behave({{vendorPlaceholder, "error"}, {vendorStart, "error"}, {vendorStop, "error"}});
  EXPECT_EQ(outcome(providePlaceholder, {a_, provider, app}), once);
  EXPECT_EQ(outcome(startProviding, {a_, provider, app}), once);
  EXPECT_EQ(outcome(stopProviding, {a_, provider, app}), twice);
  EXPECT_TRUE(daemon_->logs(
      "[ERROR] Could not ask provider ID com.example.provider to stop providing item at URL"));

  provider_.behave({{vendorIdentifier, "error"}});
  const URL b = provider_.url("B c.txt");
  EXPECT_EQ(outcome(extendSandbox, {b, provider, app}), twice);
  EXPECT_EQ(outcome(providePlaceholder, {a_, provider, app}), twice);
  EXPECT_EQ(outcome(startProviding, {a_, provider, app}), twice);
  EXPECT_EQ(outcome(stopProviding, {a_, provider, app}), "success");
  EXPECT_EQ(outcome(extendBookmark, {b, app}), twice);
  EXPECT_EQ(outcome(bookmarkableString, {a_}), once);
  EXPECT_EQ(granted(provider, app), Array{"item/a"});

  provider_.behave({{vendorIdentifier, "absent"}});
  EXPECT_EQ(wire_.call(bookmarkableString, {a_}).values, (Array{absent, absent}));
  EXPECT_TRUE(daemon_->logs("[ERROR] Could not get Item ID for URL " + a_.absoluteString() + "."));
  EXPECT_EQ(outcome(startProviding, {a_, provider, app}), "DSErrorDomain 3");
}

TEST_F(Operations, AreNotPermittedWithoutAGrant) {
  EXPECT_EQ(outcome(extendSandbox, {a_, provider, friendly}), "success");
  EXPECT_EQ(outcome(providePlaceholder, {a_, provider, app}), "DSErrorDomain 3");
  EXPECT_EQ(outcome(startProviding, {a_, provider, app}), "DSErrorDomain 3");
  EXPECT_EQ(outcome(startProviding, {provider_.url("B c.txt"), provider, friendly}),
            "DSErrorDomain 3");
  EXPECT_EQ(outcome(stopProviding, {a_, provider, app}), "success");
  EXPECT_EQ(provider_.calls(vendorStart), 0U);
  EXPECT_EQ(provider_.calls(vendorPlaceholder), 0U);
  EXPECT_TRUE(
      daemon_->logs("fault: [ERROR] Consumer ID com.example.app is not allowed to access item ID "
                    "“item/a” from provider ID com.example.provider."));
}

TEST_F(Operations, RefuseBookmarksToWhoHasNoRightToThem) {
  const Consumer nobody(installation_.root(), "", builtProgram("scripted-consumer"), false);
  Wire unnamed = nobody.connect();
  EXPECT_EQ(unnamed.call(extendBookmark, {a_, app}).outcome(), "DSErrorDomain 3");
  EXPECT_EQ(unnamed.call(documentURL, {"docsource:com.example.provider/item/a"}).outcome(),
            "DSErrorDomain 3");
  EXPECT_EQ(unnamed.call(bookmarkableString, {a_}).outcome(), "success");

  // Not to be reached, so not to be given on.
  EXPECT_EQ(outcome(extendBookmark, {provider_.url("missing"), app}), "DSErrorDomain 3");
  EXPECT_EQ(granted(provider, app), Array());

  for (const char* string : {"", "docsource:", " docsource:com.example.provider/item/a",
                             "DOCSOURCE:com.example.provider/item/a",
                             "docsource:com.example.provider", "docsource:com.example.provider/",
                             "docsource:/item", "docsource:com.example.provider//a"}) {
    EXPECT_EQ(outcome(documentURL, {string}), "DSErrorDomain 5") << string;
  }
  const auto refused = wire_.call(documentURL, {"docsource:com.example.provider/item/a"});
  EXPECT_EQ(refused.outcome(), "DSErrorDomain 3");
  EXPECT_EQ(Array(refused.values.begin(), refused.values.begin() + 4), Array(4));
  EXPECT_TRUE(
      daemon_->logs("[ERROR] Provider ID com.example.provider is not allowed to provide item ID "
                    "“item/a” to consumer ID com.example.app"));

  const auto failed = wire_.call(documentURL, {"docsource:com.example.other/no such item"});
  EXPECT_EQ(failed.outcome(), "DSErrorDomain 9");
  EXPECT_FALSE(failed.error()->info().contains("URL"));

  // A provider that is not installed: no answer, and nothing lost.
  const auto unanswered = wire_.begin(documentURL, {"docsource:com.example.gone/x"});
  EXPECT_EQ(outcome(listProviders, {}), "success");
  EXPECT_FALSE(wire_.hasInput());
  EXPECT_GT(unanswered, 0);
}

TEST_F(Operations, AskTheFilesPermissionsForABookmark) {
  if (geteuid() != 0)
    GTEST_SKIP() << "only root can start a consumer that may less than the daemon";
  const auto guest = installation_.installConsumer("com.example.guest", {}, true);
  Wire wire = guest.connect();
  std::filesystem::permissions(provider_.document("A.txt"), std::filesystem::perms(0644));
  EXPECT_TRUE(eventually([&] {
    return wire.call(documentURL, {"docsource:x/y"}).outcome() == "DSErrorDomain 3" &&
           wire.call(documentURL, {"x"}).outcome() == "DSErrorDomain 5";
  })) << "the guest is not known by its bundle";
  EXPECT_EQ(wire.call(extendBookmark, {a_, app}).outcome(), "DSErrorDomain 3");
  std::filesystem::permissions(provider_.document("A.txt"), std::filesystem::perms(0666));
  EXPECT_EQ(wire.call(extendBookmark, {a_, app}).outcome(), "success");
}

}  // namespace
}  // namespace qx::test
