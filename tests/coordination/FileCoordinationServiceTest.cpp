#include "platform/platformd/FileCoordinationService.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <map>
#include <vector>

#include "tests/coordination/Fixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/InChild.h"

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

TEST_F(FileCoordinationServiceTest, AReadReachesTheOwnerAndItsAnswerTheReader) {
  Client provider, reader;
  ASSERT_EQ(provider.add("source", directory), success);
  auto read = reader.beginRead(items / "document");
  EXPECT_EQ(provider.nextCall(), provideCall("source", items / "document", "com.example.tests"));
  EXPECT_FALSE(reader.hasInput());
  const qx::Error failure("VendorDomain", -7, qx::Dictionary{{"description", "No."}, {"more", 1}});
  provider.reply(failure);
  EXPECT_EQ(reader.answer(read).error(), failure);

  // A reader that belongs to no bundle.
  beNobody();
  read = reader.beginRead(items / "document");
  EXPECT_EQ(provider.nextCall(),
            provideCall("source", items / "document", "pid:" + std::to_string(getpid())));
  provider.reply();
  EXPECT_EQ(reader.end(read), success);
}

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

TEST_F(FileCoordinationServiceTest, ALostConnectionForgetsItsSourcesAndFailsItsReaders) {
  Client provider, reader, survivor;
  TemporaryDirectory elsewhere;
  std::ofstream(elsewhere / "file") << "x";
  ASSERT_EQ(provider.add("source", directory), success);
  ASSERT_EQ(survivor.add("survivor", URL::fileURL(elsewhere.path(), true)), success);
  const auto waiting = reader.beginRead(items / "document");
  const auto alsoWaiting = reader.beginRead(items / "other");
  provider.nextCall();
  provider.nextCall();
  LogCapture log;
  provider.close();
  EXPECT_EQ(reader.end(waiting), lost);
  EXPECT_EQ(reader.end(alsoWaiting), lost);
  ASSERT_TRUE(
      log.mailbox().waitFor("[NOTICE] Doc source source is gone: its connection was lost."));
  EXPECT_EQ(reader.read(items / "document"), success);
  auto read = reader.beginRead(elsewhere / "file");
  EXPECT_EQ(survivor.provideNext(), "survivor");
  EXPECT_EQ(reader.end(read), success);
  ASSERT_EQ(survivor.add("source", directory), success);
  read = reader.beginRead(items / "document");
  EXPECT_EQ(survivor.provideNext(), "source");
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

TEST_F(FileCoordinationServiceTest, AbsentAndImpossibleArgumentsAreNamed) {
  Client client;
  const URL web("https://example.com/a");
  const std::string add = "addDocSource:providedItemsURL:completion:",
                    remove = "removeDocSource:completion:";
  const std::optional<std::string> none;
  struct Case {
    std::string operation;
    Array arguments;
    qx::Error error;
  };
  for (const auto& [operation, arguments, error] :
       {Case{add, {absent, directory}, DSInvalidParameterError("identifier", none)},
        Case{add, {"a", absent}, DSInvalidParameterError("URL", none)},
        Case{add, {"a", web}, DSInvalidParameterError("URL", web.absoluteString())},
        Case{remove, {absent}, DSInvalidParameterError("identifier", none)},
        Case{finishedWriting, {absent}, DSInvalidParameterError("URL", none)}}) {
    EXPECT_EQ(client.call(operation, arguments).error(), error) << operation;
  }
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

TEST_F(CoordinationTest, AnOrdinaryUserReadsAndWritesWhatItsPermissionsLetIt) {
  ChildProcess service({ownProgram(), "serve", "-"});
  ASSERT_EQ(service.readLine(), "ready");
  for (const std::string& path : {temporaryRoot(), qx::Places::runtimeDirectory(), items.path()}) {
    chmod(path.c_str(), 0755);
  }
  chmod((items / "document").c_str(), geteuid() == 0 ? 0600 : 0);
  chmod((items / "other").c_str(), 0444);
  Client provider;
  ASSERT_EQ(provider.add("source", directory), success);
  EXPECT_EQ(inChild([&] {
              if (!dropPrivileges()) return 1;
              Client client;
              const auto refused = qx::fileError(EACCES, URL::fileURL(items / "document"));
              const Array document{URL::fileURL(items / "document")};
              EXPECT_EQ(client.call(coordinateReading, document).error(), refused);
              EXPECT_EQ(client.call(finishedWriting, document).error(), refused);
              const auto read = client.beginRead(items / "other");
              EXPECT_EQ(provider.provideNext(), "source");
              EXPECT_EQ(client.end(read), success);
              EXPECT_NE(client.wrote(items / "other"), success);
              return testing::Test::HasFailure() ? 2 : 0;
            }),
            0);
}

TEST_F(FileCoordinationServiceTest, AFinishedWriteIsPassedOn) {
  Client provider, writer;
  ASSERT_EQ(provider.add("source", directory), success);
  EXPECT_EQ(writer.wrote("/dev/null"), success);
  EXPECT_EQ(writer.wrote(items / "document"), success);
  EXPECT_EQ(provider.nextCall(),
            "docSource:writerWithID:didFinishWritingForURL:completionHandler: (source, "
            "com.example.tests, " +
                URL::fileURL(items / "document").absoluteString() + ")");
}

}  // namespace
