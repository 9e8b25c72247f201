// The example provider as a real process over a socket pair, with an origin and a document storage
// of the test's own. Each test runs with marks in extended attributes and in files.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "platform/files/FileManager.h"
#include "tests/support/BundleMaker.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Operations.h"
#include "tests/support/RawPeer.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Wire.h"

namespace qx::test {
namespace {

namespace fs = std::filesystem;

std::string executable() {
  return fs::read_symlink("/proc/self/exe").parent_path().parent_path() /
         "examples/FolderProvider.docext/folder-provider";
}

/// The process, and the broker's end of its connection.
class ProviderProcess {
 public:
  ProviderProcess(const std::string& bundle, const std::string& storage)
      : process_({"env", "-C", bundle, "QX_EXTENSION_CONNECTION=" + theirs(),
                  "QX_EXTENSION_IDENTIFIER=org.example.folder-provider",
                  "QX_DOCUMENT_STORAGE=" + storage, executable()}),
        broker_(std::move(ends_.first)) {
    ends_.second.reset();
  }
  ~ProviderProcess() { end(); }
  ProviderProcess(const ProviderProcess&) = delete;
  ProviderProcess& operator=(const ProviderProcess&) = delete;

  Wire& broker() { return broker_; }
  void kill() { process_.end(); }
  /// Its status after the connection was closed.
  int end() {
    broker_.close();
    return process_.wait();
  }

 private:
  std::string theirs() const {
    ::fcntl(ends_.second.get(), F_SETFD, 0);
    return std::to_string(ends_.second.get());
  }

  std::pair<FileDescriptor, FileDescriptor> ends_ = socketPair();
  ChildProcess process_;
  Wire broker_;
};

class FolderProviderTest : public testing::TestWithParam<const char*> {
 protected:
  FolderProviderTest() {
    fs::create_directories(bundle);
    fs::create_directories(origin + "/letters/old");
    fs::create_directories(fs::path(storage).parent_path());
    configure(origin);
    write(origin + "/a.txt", "the letter a");
    write(origin + "/letters/b.txt", "b");
    write(origin + "/letters/old/c.txt", std::string(100000, 'c'));
  }

  void SetUp() override {
    if (::setxattr(origin.c_str(), "user.docsource.test", "1", 1, 0) != 0 && attributes()) {
      GTEST_SKIP() << "no extended attributes on " << origin;
    }
    start();
    ASSERT_EQ(setUp(), "success");
  }

  bool attributes() const { return std::string(GetParam()) == "attributes"; }

  void configure(const std::string& from) {
    const Dictionary extension{{"FolderProviderOrigin", from}, {"FolderProviderMarks", GetParam()}};
    writeList(bundle + "/Info.plist", Dictionary{{"QXExtension", extension}});
  }
  void start() { provider = std::make_unique<ProviderProcess>(bundle, storage); }
  void restart() {
    EXPECT_EQ(provider->end(), 0);
    start();
  }

  static void write(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ofstream::binary | std::ofstream::trunc) << content;
  }
  static std::string read(const std::string& path) {
    auto text = FileManager::readFile(path);
    return text ? *text : text.error().text();
  }
  static struct stat status(const std::string& path) {
    struct stat result {};
    EXPECT_EQ(::lstat(path.c_str(), &result), 0) << path;
    return result;
  }
  /// Of the origin's size and time, and without content.
  void expectPlaceholder(const std::string& item) {
    SCOPED_TRACE(item);
    const std::string here = storage + "/" + item, there = origin + "/" + item;
    EXPECT_EQ(fs::last_write_time(here), fs::last_write_time(there));
    EXPECT_TRUE(read(here) == std::string(fs::file_size(there), 0)) << "there is content";
    if (attributes()) {
      EXPECT_GT(::getxattr(here.c_str(), "user.docsource.placeholder", nullptr, 0), 0);
    }
  }
  URL url(const std::string& item) const { return URL::fileURL(storage + "/" + item); }
  /// What comes of an operation.
  std::string ask(const std::string& operation, const std::string& item) {
    return provider->broker().call(operation, {url(item)}).outcome();
  }
  std::string setUp() { return provider->broker().call(vendorSetUp, {}).outcome(); }
  std::string identifier(const std::string& item) {
    const auto answer = provider->broker().call(vendorIdentifier, {url(item)});
    EXPECT_EQ(answer.outcome(), "success");
    const auto* text = answer.at<std::string>(1);
    return text ? *text : "";
  }
  /// The URL of an item, or the error.
  Value itemOf(const std::string& identifier) {
    const auto answer = provider->broker().call(vendorURL, {identifier});
    return answer.isAbsent(0) ? answer.values.at(1) : answer.values.at(0);
  }

  const TemporaryDirectory root;
  const std::string bundle = root / "FolderProvider.docext";
  const std::string parent = root / "parent";
  std::string origin = parent + "/origin";
  const std::string storage = root / "group/Doc Source Storage";
  std::unique_ptr<ProviderProcess> provider;
};

INSTANTIATE_TEST_SUITE_P(Marks, FolderProviderTest, testing::Values("attributes", "files"),
                         [](const auto& each) { return std::string(each.param); });

TEST_P(FolderProviderTest, SetUpShowsEveryDocumentAndLeadsNowhereElse) {
  for (const char* item : {"a.txt", "letters/b.txt", "letters/old/c.txt"}) expectPlaceholder(item);

  // Links are no documents, neither in the origin nor in the storage.
  write(root / "secret", "secret");
  fs::create_symlink(root / "secret", origin + "/link.txt");
  fs::create_directory_symlink(root.path(), origin + "/out");
  fs::remove(storage + "/a.txt");
  fs::create_symlink(root / "secret", storage + "/a.txt");
  write(origin + "/new.txt", "new");
  write(origin + "/a.txt", "changed");
  EXPECT_EQ(setUp(), "success");
  EXPECT_FALSE(fs::exists(fs::symlink_status(storage + "/link.txt")));
  EXPECT_FALSE(fs::exists(fs::symlink_status(storage + "/out")));
  expectPlaceholder("new.txt");
  EXPECT_EQ(read(root / "secret"), "secret");
  for (const char* item : {"a.txt", "out/secret", "../../secret", "link.txt"}) {
    for (const char* operation : {vendorStart, vendorChanged, vendorStop, vendorIdentifier}) {
      EXPECT_NE(ask(operation, item), "success") << operation << item;
    }
  }
  EXPECT_EQ(read(root / "secret"), "secret");
}

TEST_P(FolderProviderTest, ASetUpThatIsKilledIsDoneWithByTheNext) {
  constexpr int documents = 1000;
  for (int i = 0; i < documents; ++i) write(origin + "/many" + std::to_string(i), "document");
  const auto shown = [&] {
    const auto names = fs::directory_iterator(storage);
    return std::count_if(begin(names), end(names), [](const auto& entry) {
      return entry.path().filename().string().starts_with("many");
    });
  };
  const auto aside = [&] {
    const auto names = fs::directory_iterator(fs::path(storage).parent_path() / ".folder-provider");
    return std::count_if(begin(names), end(names), [](const auto& entry) {
      return entry.path().filename().string().starts_with("side-");
    });
  };
  provider->broker().begin(vendorSetUp, {});
  while (aside() == 0 && shown() == 0) ::sched_yield();
  provider->kill();
  EXPECT_LT(shown(), documents);
  EXPECT_GT(aside(), 0);
  start();
  EXPECT_EQ(setUp(), "success");
  EXPECT_EQ(shown(), documents);
  EXPECT_EQ(aside(), 0);
  for (int i = 0; i < documents; i += 100) expectPlaceholder("many" + std::to_string(i));
}

TEST_P(FolderProviderTest, ContentComesAndGoesInPlace) {
  const std::string path = storage + "/letters/old/c.txt";
  const auto inode = status(path).st_ino;
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(ask(vendorStart, "letters/old/c.txt"), "success");
    EXPECT_EQ(read(path), std::string(100000, 'c'));
    EXPECT_EQ(status(path).st_ino, inode);
    {
      // Who reads it goes on reading.
      std::ifstream reader(path);
      EXPECT_EQ(ask(vendorStop, "letters/old/c.txt"), "success");
      EXPECT_EQ(read(path), std::string(100000, 'c'));
    }
    EXPECT_EQ(ask(vendorStop, "letters/old/c.txt"), "success");
    expectPlaceholder("letters/old/c.txt");
    restart();
  }

  // A document that is there is brought up to date; a placeholder that somebody removed comes back.
  EXPECT_EQ(ask(vendorStart, "a.txt"), "success");
  write(origin + "/a.txt", "a longer letter a");
  EXPECT_EQ(ask(vendorStart, "a.txt"), "success");
  EXPECT_EQ(read(storage + "/a.txt"), "a longer letter a");
  fs::remove(storage + "/letters/b.txt");
  EXPECT_EQ(ask(vendorPlaceholder, "letters/b.txt"), "success");
  expectPlaceholder("letters/b.txt");
  EXPECT_EQ(ask(vendorPlaceholder, "nothing.txt"), "QXStandardErrorDomain 260");
}

TEST_P(FolderProviderTest, ChangesAreWrittenBackAndNeverThrownAway) {
  EXPECT_EQ(ask(vendorStart, "a.txt"), "success");
  const std::string a = identifier("a.txt");
  const auto before = status(origin + "/a.txt").st_ino;
  write(storage + "/a.txt", "edited");
  EXPECT_EQ(ask(vendorStop, "a.txt"), "success");
  EXPECT_EQ(read(storage + "/a.txt"), "edited") << "what was changed stays";
  EXPECT_EQ(ask(vendorChanged, "a.txt"), "success");
  EXPECT_EQ(read(origin + "/a.txt"), "edited");
  EXPECT_NE(status(origin + "/a.txt").st_ino, before) << "replaced as a whole";
  EXPECT_EQ(identifier("a.txt"), a);
  EXPECT_EQ(ask(vendorStop, "a.txt"), "success");
  expectPlaceholder("a.txt");

  // An editor that puts a new file in the document's place; a new document in a new directory.
  EXPECT_EQ(ask(vendorStart, "a.txt"), "success");
  write(storage + "/side", "replaced");
  fs::rename(storage + "/side", storage + "/a.txt");
  EXPECT_EQ(ask(vendorChanged, "a.txt"), "success");
  EXPECT_EQ(read(origin + "/a.txt"), "replaced");
  EXPECT_EQ(identifier("a.txt"), a);
  fs::create_directories(storage + "/new/deep");
  write(storage + "/new/deep/d.txt", "d");
  EXPECT_EQ(ask(vendorChanged, "new/deep/d.txt"), "success");
  EXPECT_EQ(read(origin + "/new/deep/d.txt"), "d");

  // Changed on both sides: neither content is lost.
  EXPECT_EQ(ask(vendorStart, "letters/b.txt"), "success");
  write(origin + "/letters/b.txt", "from the origin");
  write(storage + "/letters/b.txt", "from here");
  EXPECT_EQ(ask(vendorStart, "letters/b.txt"), "success");
  EXPECT_EQ(read(storage + "/letters/b.txt"), "from here");
  EXPECT_EQ(ask(vendorChanged, "letters/b.txt"), "success");
  std::vector<std::string> contents;
  for (const auto& entry : fs::directory_iterator(origin + "/letters")) {
    if (entry.is_regular_file()) contents.push_back(read(entry.path()));
  }
  std::sort(contents.begin(), contents.end());
  EXPECT_EQ(contents, (std::vector<std::string>{"from here", "from the origin"}));

  EXPECT_NE(ask(vendorChanged, "nothing.txt"), "success");
}

TEST_P(FolderProviderTest, IdentifiersOutliveRenamesInAndOfTheOrigin) {
  const std::string a = identifier("a.txt");
  EXPECT_NE(a, identifier("letters/old/c.txt"));
  EXPECT_NE(a, "");
  fs::rename(parent, root / "elsewhere");
  EXPECT_EQ(ask(vendorStart, "a.txt"), "QXStandardErrorDomain 260");
  EXPECT_NE(setUp(), "success");
  EXPECT_TRUE(fs::exists(storage + "/a.txt")) << "an origin that is away removes nothing";
  EXPECT_EQ(identifier("a.txt"), a);
  origin = root / "elsewhere/origin";
  configure(origin);
  restart();
  EXPECT_EQ(setUp(), "success");
  EXPECT_EQ(identifier("a.txt"), a);
  EXPECT_EQ(itemOf(a), Value(url("a.txt")));

  if (!attributes()) return;  // the path is the identifier
  fs::rename(origin + "/a.txt", origin + "/letters/renamed.txt");
  write(origin + "/a.txt", "another a");
  // Before anybody noticed, the document is still itself.
  EXPECT_EQ(ask(vendorStart, "a.txt"), "success");
  EXPECT_EQ(read(storage + "/a.txt"), "the letter a");
  restart();
  EXPECT_EQ(setUp(), "success");
  EXPECT_EQ(itemOf(a), Value(url("letters/renamed.txt")));
  EXPECT_EQ(read(storage + "/letters/renamed.txt"), "the letter a");
  EXPECT_NE(identifier("a.txt"), a);
  expectPlaceholder("a.txt");
}

TEST_P(FolderProviderTest, WhatTheOriginLostIsAnErrorOrStaysWhatItWas) {
  const std::string a = identifier("a.txt");
  EXPECT_EQ(ask(vendorStart, "letters/b.txt"), "success");
  fs::remove(origin + "/a.txt");
  fs::remove(origin + "/letters/b.txt");
  EXPECT_EQ(ask(vendorStart, "a.txt"), "QXStandardErrorDomain 260");
  EXPECT_TRUE(itemOf(a).as<Error>()->is("DSErrorDomain", 1));
  EXPECT_TRUE(itemOf("path:../../secret").as<Error>());

  // The content that is here is the last there is.
  EXPECT_EQ(ask(vendorStop, "letters/b.txt"), "success");
  EXPECT_EQ(setUp(), "success");
  EXPECT_FALSE(fs::exists(storage + "/a.txt"));
  EXPECT_EQ(read(storage + "/letters/b.txt"), "b");
}

TEST_P(FolderProviderTest, AKilledProviderLeavesPlaceholdersOrContentButNothingBetween) {
  const std::string big(4U << 20U, 'x');
  write(origin + "/big.bin", big);
  EXPECT_EQ(setUp(), "success");
  const std::string path = storage + "/big.bin";
  for (int round = 0; round < 2; ++round) {
    provider->broker().begin(vendorStart, {url("big.bin")});
    // Somewhere in the middle: when the first blocks have arrived.
    while (status(path).st_blocks == 0) ::sched_yield();
    provider->kill();
    start();
    if (attributes() && ::getxattr(path.c_str(), "user.docsource.placeholder", nullptr, 0) < 0) {
      EXPECT_TRUE(read(path) == big);
    }
    // Nothing that was half brought in is ever taken for a change.
    EXPECT_EQ(ask(vendorChanged, "big.bin"), "success");
    EXPECT_TRUE(read(origin + "/big.bin") == big);
    EXPECT_EQ(setUp(), "success");
    EXPECT_EQ(ask(vendorStop, "big.bin"), "success");
    expectPlaceholder("big.bin");
  }
  EXPECT_EQ(ask(vendorStart, "big.bin"), "success");
  EXPECT_TRUE(read(path) == big);
}

}  // namespace
}  // namespace qx::test
