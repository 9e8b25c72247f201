#include "platform/platformd/FileCoordinationService.h"

#include <sys/xattr.h>

#include "tests/coordination/Fixture.h"

namespace {

using namespace qx::test;
using qx::Array;
using qx::URL;
using qx::Value;

const Value absent;

class FileCoordinationServiceTest : public CoordinationTest {
 protected:
  void SetUp() override {
    CoordinationTest::SetUp();
    service = startService();
  }
  std::string provideCall(const std::string& source, const std::string& path,
                          const std::string& reader) const {
    return "docSource:provideItemAtURL:toReaderWithID:completionHandler: (" + source + ", " +
           URL::fileURL(path).absoluteString() + ", " + reader + ")";
  }
  std::shared_ptr<FileCoordinationService> service;
};

TEST_F(FileCoordinationServiceTest, WhatNobodyOwnsIsReadAtOnce) {
  Client provider, reader;
  TemporaryDirectory elsewhere;
  std::ofstream(elsewhere / "file") << "x";
  EXPECT_EQ(reader.read(items / "document"), success);
  ASSERT_EQ(provider.add("source", directory), success);
  // A link that leads out, and one that leads in.
  std::filesystem::create_symlink(elsewhere / "file", items / "out");
  std::filesystem::create_symlink(items / "document", elsewhere / "in");
  for (const auto& path : {elsewhere / "file", items.path(), items / "out", elsewhere / "no/where",
                           items / "../" + elsewhere.path().substr(5) + "/file"}) {
    EXPECT_EQ(reader.read(path), success) << path;
  }
  EXPECT_FALSE(provider.hasInput());
  const auto read = reader.beginRead(elsewhere / "in");
  EXPECT_EQ(provider.provideNext(), "source");
  EXPECT_EQ(reader.end(read), success);
  EXPECT_EQ(provider.remove("source"), success);
  EXPECT_EQ(reader.read(items / "document"), success);
}

TEST_F(FileCoordinationServiceTest, TheInnermostDirectoryOwns) {
  Client provider, reader;
  std::filesystem::create_directories(items / "inner/most");
  write("inner/document");
  write("inner/most/document");
  ASSERT_EQ(provider.add("b", directory), success);
  ASSERT_EQ(provider.add("c", URL::fileURL(items / "inner", true)), success);
  ASSERT_EQ(provider.add("a", URL::fileURL(items / "inner/most", true)), success);
  ASSERT_EQ(provider.add("d", URL::fileURL(items / "missing", true)), success);
  for (const auto& [name, owner] :
       {std::pair("document", "b"), {"inner/document", "c"}, {"inner/most/document", "a"}}) {
    reader.beginRead(items / name);
    EXPECT_EQ(provider.provideNext(), owner);
  }
}

TEST_F(FileCoordinationServiceTest, ReadersOfOneFileShareOneProvide) {
  Client provider, second;
  auto first = std::make_unique<Client>();
  std::filesystem::create_symlink(items / "document", items / "link");
  ASSERT_EQ(provider.add("source", directory), success);
  first->beginRead(items / "document");
  EXPECT_EQ(provider.nextCall(), provideCall("source", items / "document", "com.example.tests"));
  first->beginRead(items / "link");
  const auto shared = second.beginRead(items / "./document");
  // Answered in order on each connection: by then those two have arrived.
  EXPECT_EQ(first->read("/"), success);
  EXPECT_EQ(second.read("/"), success);
  EXPECT_FALSE(provider.hasInput());
  // A reader that goes away takes nothing from the others.
  first.reset();
  provider.reply(DSNotPermittedError());
  EXPECT_EQ(second.end(shared), "DSErrorDomain 3");

  // Afterwards it is asked for again, and another file does not wait for it.
  const auto again = second.beginRead(items / "document");
  provider.nextCall();
  const auto other = second.beginRead(items / "other");
  provider.provideNext();
  EXPECT_EQ(second.end(other), success);
  EXPECT_FALSE(second.hasInput());
  provider.close();
  EXPECT_EQ(second.end(again), lost);
}

TEST_F(FileCoordinationServiceTest, WhatIsAPlaceholderStillWasNotRead) {
  Client provider, reader;
  ASSERT_EQ(provider.add("source", directory), success);
  const std::string path = items / "placeholder", mark = "placeholder";
  std::ofstream(path).close();
  std::filesystem::resize_file(path, 1 << 20);
  ASSERT_EQ(setxattr(path.c_str(), "user.docsource.placeholder", mark.data(), mark.size(), 0), 0);
  // As where readers are kept waiting, and as where nobody can.
  for (const auto mode : {0644, 0}) {
    std::filesystem::permissions(path, std::filesystem::perms(mode));
    const auto read = reader.beginRead(path);
    provider.provideNext();
    EXPECT_EQ(reader.end(read), "QXStandardErrorDomain 256 (QXPOSIXErrorDomain 5)");
  }
  std::filesystem::permissions(path, std::filesystem::perms(0644));
  ASSERT_EQ(removexattr(path.c_str(), "user.docsource.placeholder"), 0);
  const auto read = reader.beginRead(path);
  provider.provideNext();
  EXPECT_EQ(reader.end(read), success);
}

TEST_F(FileCoordinationServiceTest, AProviderThatDoesNotAnswerLeavesRoomForOthers) {
  Client provider, reader;
  TemporaryDirectory elsewhere;
  std::ofstream(elsewhere / "file") << "x";
  ASSERT_EQ(provider.add("hung", directory), success);
  ASSERT_EQ(provider.add("other", URL::fileURL(elsewhere.path(), true)), success);
  // More than a connection takes without an answer.
  std::array<Client, 2> waiting;
  std::vector<std::int64_t> reads;
  for (int i = 0; i < 700; ++i) {
    for (Client& client : waiting) {
      reads.push_back(client.beginRead(items / std::to_string(reads.size())));
    }
  }
  for (Client& client : waiting) EXPECT_EQ(client.read("/"), success);
  std::size_t asked = 0;
  const auto nextOfOther = [&] {
    for (;; ++asked) {
      const auto call = provider.nextCall();
      if (!call.starts_with("docSource:provideItemAtURL") || call.find("(hung, ") == call.npos) {
        return call;
      }
      // Each answer is another one's turn.
      if (asked < 10) provider.reply();
    }
  };
  const auto read = reader.beginRead(elsewhere / "file");
  EXPECT_EQ(nextOfOther(), provideCall("other", elsewhere / "file", "com.example.tests"));
  provider.reply();
  EXPECT_EQ(reader.end(read), success);
  provider.close();
  std::map<std::string, std::size_t> outcomes;
  for (std::size_t i = 0; i < reads.size(); ++i) ++outcomes[waiting[i % 2].end(reads[i])];
  EXPECT_EQ(outcomes[success], 10U);
  EXPECT_EQ(outcomes[lost], reads.size() - 10);
}

TEST_F(FileCoordinationServiceTest, AddingTakesTheEntitlementAsANumberThatIsTrue) {
  Client client;
  EXPECT_EQ(client.add("a", directory), success);
  for (const auto& entitlements : {qx::Dictionary{},
                                   {{fileCoordinationHostEntitlement, false}},
                                   {{fileCoordinationHostEntitlement, 0}},
                                   {{fileCoordinationHostEntitlement, "true"}},
                                   {{fileCoordinationHostEntitlement, qx::Array{true}}},
                                   {{"com.veltro.file-coordination", true}}}) {
    entitle(entitlements);
    EXPECT_EQ(client.call("addDocSource:providedItemsURL:completion:", {"b", directory}).error(),
              DSClientLacksEntitlement("com.veltro.file-coordination.host"));
    EXPECT_EQ(client.add(absent, absent), "DSErrorDomain 6");
  }
  beNobody();
  EXPECT_EQ(client.add("b", directory), "DSErrorDomain 6");
  // Not needed to read, nor to remove what one has added.
  EXPECT_EQ(client.remove("b"), "DSErrorDomain 1");
  EXPECT_EQ(client.remove("a"), success);
  entitle({{fileCoordinationHostEntitlement, 1}});
  EXPECT_EQ(client.add("b", directory), success);
}

TEST_F(FileCoordinationServiceTest, ASourceBelongsToTheConnectionThatAddedItWhileThatLives) {
  Client first, second, reader;
  ASSERT_EQ(first.add("a", directory), success);
  EXPECT_EQ(second.remove("a"), "DSErrorDomain 3");
  EXPECT_EQ(first.remove("A"), "DSErrorDomain 1");
  EXPECT_EQ(second.add("a", directory), "DSErrorDomain 3");
  const auto ofTheFirst = reader.beginRead(items / "document");
  EXPECT_EQ(first.provideNext(), "a");
  EXPECT_EQ(reader.end(ofTheFirst), success);
  // Its connection lost, another one may have it, whether the loss was noticed already or not.
  first.close();
  ASSERT_EQ(second.add("a", directory), success);
  for (int round = 0; round < 2; ++round) {
    const auto read = reader.beginRead(items / "document");
    EXPECT_EQ(second.provideNext(), "a");
    EXPECT_EQ(reader.end(read), success);
  }
  // Added again with another directory, it does not own the first one any more.
  ASSERT_EQ(second.add("a", URL::fileURL(items / "elsewhere", true)), success);
  EXPECT_EQ(reader.read(items / "document"), success);
  EXPECT_EQ(second.remove("a"), success);
}

TEST_F(FileCoordinationServiceTest, WhatCannotBeIsReadAtOnceAndWhatIsNotYetIsAskedFor) {
  Client provider, reader;
  ASSERT_EQ(provider.add("source", directory), success);
  for (const Value& url :
       {absent, Value(URL("https://example.com/a")), Value(URL::fileURL(items / "document/inside")),
        Value(URL::fileURL(items / std::string(5000, 'x')))}) {
    EXPECT_EQ(reader.call(coordinateReading, {url}).outcome(), success) << describe(url);
    EXPECT_NE(reader.call(finishedWriting, {url}).outcome(), success) << describe(url);
  }
  EXPECT_FALSE(provider.hasInput());
  // It is the provider that knows whether there is such a thing.
  for (const auto& name : {"to come", "no directory/yet/document"}) {
    const auto read = reader.beginRead(items / name);
    EXPECT_EQ(provider.nextCall(), provideCall("source", items / name, "com.example.tests"));
    provider.reply();
    EXPECT_EQ(reader.end(read), success);
  }
}

}  // namespace
