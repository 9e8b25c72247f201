#include "platform/platformd/FileCoordinationService.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tests/coordination/Fixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/InChild.h"

namespace {

using namespace qx::test;
using qx::Error;
using qx::URL;

class FileCoordinationServiceTest : public CoordinationTest {
 protected:
  void SetUp() override {
    CoordinationTest::SetUp();
    service = startService();
  }
  std::shared_ptr<FileCoordinationService> service;
};

TEST_F(FileCoordinationServiceTest, AReadReachesTheOwnerAndItsAnswerTheReader) {
  Client provider, reader;
  ASSERT_FALSE(provider.add("com.example.source", directory));
  auto outcome = reader.read(items / "document");
  auto provide = provider.nextProvide();
  EXPECT_EQ(provide.docSource, "com.example.source");
  EXPECT_EQ(provide.url, URL::fileURL(items / "document").absoluteString());
  EXPECT_EQ(provide.reader, "com.example.tests");
  EXPECT_FALSE(outcome.isThere());
  provide.completion(std::nullopt);
  EXPECT_FALSE(outcome.get());

  const Error failure("VendorDomain", -7, qx::Dictionary{{"description", "No."}, {"more", 1}});
  outcome = reader.read(items / "document");
  provider.nextProvide().completion(failure);
  EXPECT_EQ(outcome.get(), failure);

  // Of a reader that belongs to no bundle.
  uninstallProgram();
  outcome = reader.read(items / "document");
  provide = provider.nextProvide();
  EXPECT_EQ(provide.reader, "pid:" + std::to_string(getpid()));
  provide.completion(std::nullopt);
  EXPECT_FALSE(outcome.get());
}

TEST_F(FileCoordinationServiceTest, WhatNobodyOwnsIsReadAtOnce) {
  Client provider, reader;
  TemporaryDirectory elsewhere;
  std::ofstream(elsewhere / "file") << "x";
  EXPECT_FALSE(reader.read(items / "document").get());
  ASSERT_FALSE(provider.add("com.example.source", directory));
  EXPECT_FALSE(reader.read(elsewhere / "file").get());
  EXPECT_FALSE(reader.read(items.path()).get());
  // A link that leads out, and one that leads in.
  std::filesystem::create_symlink(elsewhere / "file", items / "out");
  std::filesystem::create_symlink(items / "document", elsewhere / "in");
  EXPECT_FALSE(reader.read(items / "out").get());
  EXPECT_FALSE(reader.read(items / "../" + elsewhere.path().substr(5) + "/file").get());
  EXPECT_EQ(provider.provideCount(), 0u);
  auto outcome = reader.read(elsewhere / "in");
  provider.nextProvide().completion(std::nullopt);
  EXPECT_FALSE(outcome.get());
  EXPECT_FALSE(provider.remove("com.example.source"));
  EXPECT_FALSE(reader.read(items / "document").get());
}

TEST_F(FileCoordinationServiceTest, TheInnermostDirectoryOwns) {
  Client provider, reader;
  std::filesystem::create_directory(items / "inner");
  write("inner/document");
  ASSERT_FALSE(provider.add("b", directory));
  ASSERT_FALSE(provider.add("a", URL::fileURL(items / "inner", true)));
  ASSERT_FALSE(provider.add("c", URL::fileURL(items / "missing", true)));
  auto inner = reader.read(items / "inner/document");
  auto provide = provider.nextProvide();
  EXPECT_EQ(provide.docSource, "a");
  auto outer = reader.read(items / "document");
  EXPECT_EQ(provider.nextProvide().docSource, "b");
}

TEST_F(FileCoordinationServiceTest, ReadersOfOneFileShareOneProvide) {
  Client provider, first, second;
  std::filesystem::create_symlink(items / "document", items / "link");
  ASSERT_FALSE(provider.add("com.example.source", directory));
  auto one = first.read(items / "document");
  auto provide = provider.nextProvide();
  auto two = first.read(items / "link");
  auto three = second.read(items / "./document");
  // Answered in order on each connection: by then those two have arrived.
  EXPECT_FALSE(first.read(std::string("/")).get());
  EXPECT_FALSE(second.read(std::string("/")).get());
  EXPECT_EQ(provider.provideCount(), 0u);
  // Another file does not wait for it.
  auto other = second.read(items / "other");
  provider.nextProvide().completion(std::nullopt);
  EXPECT_FALSE(other.get());
  EXPECT_FALSE(one.isThere() || two.isThere() || three.isThere());
  // A reader that goes away takes nothing from the others.
  first.connection->invalidate();
  provide.completion(DSNotPermittedError());
  EXPECT_EQ(three.get(), DSNotPermittedError());
  EXPECT_EQ(one.get()->code(), 4);

  auto again = second.read(items / "document");
  provider.nextProvide().completion(std::nullopt);
  EXPECT_FALSE(again.get());
}

TEST_F(FileCoordinationServiceTest, ALostConnectionForgetsItsSourcesAndFailsItsReaders) {
  Client reader;
  auto provider = std::make_unique<Client>();
  Client survivor;
  TemporaryDirectory elsewhere;
  std::ofstream(elsewhere / "file") << "x";
  ASSERT_FALSE(provider->add("com.example.source", directory));
  ASSERT_FALSE(survivor.add("com.example.survivor", URL::fileURL(elsewhere.path(), true)));
  auto waiting = reader.read(items / "document");
  auto alsoWaiting = reader.read(items / "other");
  ASSERT_TRUE(provider->waitForProvides(2));
  LogCapture log;
  provider.reset();
  for (const auto& outcome : {waiting, alsoWaiting}) {
    auto error = outcome.get();
    ASSERT_TRUE(error);
    EXPECT_TRUE(error->is(QXConduitErrorDomain, 4));
  }
  ASSERT_TRUE(log.mailbox().waitFor(
      "[NOTICE] Doc source com.example.source is gone: its connection was lost."));
  EXPECT_FALSE(reader.read(items / "document").get());
  auto outcome = reader.read(elsewhere / "file");
  survivor.nextProvide().completion(std::nullopt);
  EXPECT_FALSE(outcome.get());
  ASSERT_FALSE(survivor.add("com.example.source", directory));
  outcome = reader.read(items / "document");
  EXPECT_EQ(survivor.nextProvide().docSource, "com.example.source");
}

TEST_F(FileCoordinationServiceTest, AddingTakesTheEntitlementAsANumberThatIsTrue) {
  Client client;
  const Error lacking = DSClientLacksEntitlement("com.veltro.file-coordination.host");
  EXPECT_FALSE(client.add("a", directory));
  for (const auto& entitlements : {qx::Dictionary{},
                                   {{fileCoordinationHostEntitlement, false}},
                                   {{fileCoordinationHostEntitlement, 0}},
                                   {{fileCoordinationHostEntitlement, "true"}},
                                   {{fileCoordinationHostEntitlement, qx::Array{true}}},
                                   {{"com.veltro.file-coordination", true}}}) {
    installProgram(entitlements);
    EXPECT_EQ(client.add("b", directory), lacking);
    EXPECT_EQ(client.add(std::nullopt, std::nullopt), lacking);
  }
  uninstallProgram();
  EXPECT_EQ(client.add("b", directory), lacking);
  // Not needed to read, nor to remove what one has added.
  EXPECT_EQ(client.remove("b"), DSNotFoundError("b"));
  EXPECT_FALSE(client.remove("a"));
  installProgram({{fileCoordinationHostEntitlement, 1}});
  EXPECT_FALSE(client.add("b", directory));
}

TEST_F(FileCoordinationServiceTest, ASourceBelongsToTheConnectionThatAddedItLast) {
  Client first, second, reader;
  ASSERT_FALSE(first.add("a", directory));
  EXPECT_EQ(second.remove("a"), DSNotPermittedError());
  EXPECT_EQ(first.remove("A"), DSNotFoundError("A"));
  ASSERT_FALSE(second.add("a", directory));
  EXPECT_EQ(first.remove("a"), DSNotPermittedError());
  auto outcome = reader.read(items / "document");
  second.nextProvide().completion(std::nullopt);
  EXPECT_FALSE(outcome.get());
  // The end of the first takes nothing from the second.
  first.connection->invalidate();
  outcome = reader.read(items / "document");
  second.nextProvide().completion(std::nullopt);
  EXPECT_FALSE(outcome.get());
  // Added again with another directory, it does not own the first one any more.
  ASSERT_FALSE(second.add("a", URL::fileURL(items / "elsewhere", true)));
  EXPECT_FALSE(reader.read(items / "document").get());
  EXPECT_FALSE(second.remove("a"));
}

TEST_F(FileCoordinationServiceTest, AbsentAndImpossibleArgumentsAreNamed) {
  Client client;
  const URL web("https://example.com/a");
  EXPECT_EQ(client.add(std::nullopt, directory), DSInvalidParameterError("identifier", {}));
  EXPECT_EQ(client.add("a", std::nullopt), DSInvalidParameterError("URL", {}));
  EXPECT_EQ(client.add("a", web), DSInvalidParameterError("URL", web.absoluteString()));
  EXPECT_EQ(client.remove(std::nullopt), DSInvalidParameterError("identifier", {}));
  EXPECT_EQ(client.read(std::optional<URL>()).get(), DSInvalidParameterError("URL", {}));
  EXPECT_EQ(client.read(web).get(), DSInvalidParameterError("URL", web.absoluteString()));
  EXPECT_EQ(client.wrote(std::nullopt), DSInvalidParameterError("URL", {}));
}

TEST_F(FileCoordinationServiceTest, WhoMayNotReachTheFileIsToldWhy) {
  Client provider, reader;
  ASSERT_FALSE(provider.add("com.example.source", directory));
  const auto missing = URL::fileURL(items / "no directory/document");
  EXPECT_EQ(reader.read(missing).get(), qx::fileError(ENOENT, missing));
  EXPECT_EQ(reader.wrote(missing), qx::fileError(ENOENT, missing));
  const auto through = URL::fileURL(items / "document/inside");
  EXPECT_EQ(reader.read(through).get(), qx::fileError(ENOTDIR, through));
  EXPECT_EQ(reader.wrote(through), qx::fileError(ENOTDIR, through));
  EXPECT_EQ(provider.provideCount(), 0u);
  // What does not exist yet in a directory that does may be asked for.
  auto outcome = reader.read(items / "to come");
  provider.nextProvide().completion(std::nullopt);
  EXPECT_FALSE(outcome.get());
}

TEST_F(CoordinationTest, AnOrdinaryUserReadsAndWritesWhatItsPermissionsLetIt) {
  ChildProcess service({programPath(), "serve", "-"});
  ASSERT_EQ(service.readLine(), "ready");
  for (const std::string& path : {temporaryRoot(), qx::Places::runtimeDirectory(), items.path()}) {
    chmod(path.c_str(), 0755);
  }
  chmod((items / "document").c_str(), geteuid() == 0 ? 0600 : 0);
  chmod((items / "other").c_str(), 0444);
  EXPECT_EQ(inChild([&] {
              if (!dropPrivileges()) return 1;
              Client client;
              const auto secret = URL::fileURL(items / "document");
              const auto readable = URL::fileURL(items / "other");
              EXPECT_EQ(client.read(secret).get(), qx::fileError(EACCES, secret));
              EXPECT_EQ(client.wrote(secret), qx::fileError(EACCES, secret));
              EXPECT_FALSE(client.read(readable).get());
              EXPECT_EQ(client.wrote(readable), qx::fileError(EACCES, readable));
              return testing::Test::HasFailure() ? 2 : 0;
            }),
            0);
}

TEST_F(FileCoordinationServiceTest, AFinishedWriteIsPassedOn) {
  Client provider, writer;
  ASSERT_FALSE(provider.add("com.example.source", directory));
  const auto url = URL::fileURL(items / "document");
  EXPECT_FALSE(writer.wrote(URL::fileURL("/dev/null")));
  EXPECT_FALSE(writer.wrote(url));
  ASSERT_TRUE(provider.writes().waitForCount(1));
  uninstallProgram();
  EXPECT_FALSE(writer.wrote(url));
  ASSERT_TRUE(provider.writes().waitForCount(2));
  const std::string end = " " + url.absoluteString();
  EXPECT_EQ(provider.writes().all(),
            (std::vector<std::string>{"com.example.source com.example.tests" + end,
                                      "com.example.source pid:" + std::to_string(getpid()) + end}));
}

}  // namespace
