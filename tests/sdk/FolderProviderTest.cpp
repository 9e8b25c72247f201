// The example provider as a real process over a socket pair, with an origin and a document storage
// of the test's own. Each test runs with marks in extended attributes and in files.

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <sched.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "tests/sdk/ProviderBroker.h"
#include "tests/support/TemporaryDirectory.h"

namespace fs = std::filesystem;
using sdk::test::Broker;

namespace {

std::string executable() {
  return fs::read_symlink("/proc/self/exe").parent_path().parent_path() /
         "examples/FolderProvider.docext/folder-provider";
}

/// The process, from its start to its end.
class ProviderProcess {
 public:
  ProviderProcess(const std::string& bundle, const std::string& storage) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
    qx::FileDescriptor mine(ends[0]);
    const qx::FileDescriptor theirs(ends[1]);
    constexpr int connection = 5;
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, theirs.get(), connection);
    ::posix_spawn_file_actions_addchdir_np(&actions, bundle.c_str());
    std::vector<std::string> variables{"QX_EXTENSION_CONNECTION=" + std::to_string(connection),
                                       "QX_EXTENSION_IDENTIFIER=org.example.folder-provider",
                                       "QX_DOCUMENT_STORAGE=" + storage};
    std::vector<char*> environment;
    for (auto& variable : variables) environment.push_back(variable.data());
    environment.push_back(nullptr);
    std::string program = executable();
    char* arguments[] = {program.data(), nullptr};
    const int problem =
        ::posix_spawn(&process_, program.c_str(), &actions, nullptr, arguments, environment.data());
    ::posix_spawn_file_actions_destroy(&actions);
    if (problem != 0) {
      ADD_FAILURE() << program << " cannot be started: " << problem;
      process_ = -1;
    }
    broker_ = std::make_unique<Broker>(std::move(mine));
  }
  ~ProviderProcess() {
    if (process_ > 0) end();
  }
  ProviderProcess(const ProviderProcess&) = delete;
  ProviderProcess& operator=(const ProviderProcess&) = delete;

  Broker* operator->() { return broker_.get(); }

  void kill() { ::kill(process_, SIGKILL); }

  /// The wait status after the connection was closed.
  int end() {
    broker_->close();
    const qx::FileDescriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, process_, 0)));
    pollfd ended{handle.get(), POLLIN, 0};
    if (::poll(&ended, 1, 20000) != 1) {
      ADD_FAILURE() << "the provider does not end";
      kill();
    }
    int status = -1;
    ::waitpid(process_, &status, 0);
    process_ = -1;
    return status;
  }

 private:
  pid_t process_ = -1;
  std::unique_ptr<Broker> broker_;
};

class FolderProviderTest : public ::testing::TestWithParam<const char*> {
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
    const auto answer = (*provider)->setUp();
    ASSERT_FALSE(answer.error) << answer.error->text();
  }

  bool attributes() const { return std::string(GetParam()) == "attributes"; }

  void configure(const std::string& from) {
    write(bundle + "/Info.plist",
          "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>QXExtension</key><dict>"
          "<key>FolderProviderOrigin</key><string>" +
              from +
              "</string>"
              "<key>FolderProviderMarks</key><string>" +
              GetParam() +
              "</string>"
              "</dict></dict></plist>");
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
    std::ifstream file(path, std::ifstream::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  static struct stat status(const std::string& path) {
    struct stat result {};
    EXPECT_EQ(::lstat(path.c_str(), &result), 0) << path;
    return result;
  }
  /// Of the origin's size and time, and without content.
  void expectPlaceholder(const std::string& item) {
    const auto here = status(storage + "/" + item);
    const auto there = status(origin + "/" + item);
    EXPECT_EQ(here.st_size, there.st_size) << item;
    EXPECT_EQ(here.st_mtim.tv_sec, there.st_mtim.tv_sec) << item;
    EXPECT_EQ(here.st_mtim.tv_nsec, there.st_mtim.tv_nsec) << item;
    EXPECT_TRUE(read(storage + "/" + item) ==
                std::string(static_cast<std::size_t>(here.st_size), 0))
        << item << " has content";
    if (attributes()) {
      EXPECT_GT(
          ::getxattr((storage + "/" + item).c_str(), "user.docsource.placeholder", nullptr, 0), 0);
    }
  }
  qx::URL url(const std::string& item) const { return qx::URL::fileURL(storage + "/" + item); }
  std::string identifier(const std::string& item) {
    const auto answer = (*provider)->identifier(url(item));
    EXPECT_FALSE(answer.error) << answer.error->text();
    return answer.text.value_or("");
  }
  void expectSuccess(const Broker::Answer& answer) {
    EXPECT_FALSE(answer.error) << answer.error->text();
  }

  const qx::test::TemporaryDirectory root;
  const std::string bundle = root / "FolderProvider.docext";
  const std::string parent = root / "parent";
  std::string origin = parent + "/origin";
  const std::string storage = root / "group/Doc Source Storage";
  std::unique_ptr<ProviderProcess> provider;
};

INSTANTIATE_TEST_SUITE_P(Marks, FolderProviderTest, ::testing::Values("attributes", "files"),
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
  expectSuccess((*provider)->setUp());
  EXPECT_FALSE(fs::exists(fs::symlink_status(storage + "/link.txt")));
  EXPECT_FALSE(fs::exists(fs::symlink_status(storage + "/out")));
  expectPlaceholder("new.txt");
  EXPECT_EQ(read(root / "secret"), "secret");
  for (const auto& item : {url("a.txt"), url("out/secret"), url("../../secret"), url("link.txt"),
                           qx::URL::fileURL(root / "secret")}) {
    EXPECT_TRUE((*provider)->start(item).error) << item.absoluteString();
    EXPECT_TRUE((*provider)->changed(item).error) << item.absoluteString();
    EXPECT_TRUE((*provider)->stop(item).error) << item.absoluteString();
    EXPECT_TRUE((*provider)->identifier(item).error) << item.absoluteString();
  }
  EXPECT_EQ(read(root / "secret"), "secret");
}

TEST_P(FolderProviderTest, ContentComesAndGoesInPlace) {
  const std::string path = storage + "/letters/old/c.txt";
  const auto inode = status(path).st_ino;
  for (int round = 0; round < 2; ++round) {
    expectSuccess((*provider)->start(url("letters/old/c.txt")));
    EXPECT_EQ(read(path), std::string(100000, 'c'));
    EXPECT_EQ(status(path).st_ino, inode);
    EXPECT_EQ(status(path).st_mtim.tv_sec, status(origin + "/letters/old/c.txt").st_mtim.tv_sec);
    {
      // Who reads it goes on reading.
      std::ifstream reader(path);
      expectSuccess((*provider)->stop(url("letters/old/c.txt")));
      EXPECT_EQ(read(path), std::string(100000, 'c'));
    }
    expectSuccess((*provider)->stop(url("letters/old/c.txt")));
    expectPlaceholder("letters/old/c.txt");
    EXPECT_EQ(status(path).st_blocks * 512 < 100000, true);
    restart();
  }

  // A document that is there is brought up to date.
  expectSuccess((*provider)->start(url("a.txt")));
  write(origin + "/a.txt", "a longer letter a");
  expectSuccess((*provider)->start(url("a.txt")));
  EXPECT_EQ(read(storage + "/a.txt"), "a longer letter a");

  // A placeholder that somebody removed comes back, also as the first thing of a start.
  fs::remove(storage + "/letters/b.txt");
  expectSuccess((*provider)->placeholder(url("letters/b.txt")));
  expectPlaceholder("letters/b.txt");
  fs::remove(storage + "/letters/b.txt");
  expectSuccess((*provider)->start(url("letters/b.txt")));
  EXPECT_EQ(read(storage + "/letters/b.txt"), "b");
  EXPECT_TRUE((*provider)->placeholder(url("nothing.txt")).error->is("QXStandardErrorDomain", 260));
}

TEST_P(FolderProviderTest, ChangesAreWrittenBackAndNeverThrownAway) {
  expectSuccess((*provider)->start(url("a.txt")));
  const std::string a = identifier("a.txt");
  const auto before = status(origin + "/a.txt").st_ino;
  write(storage + "/a.txt", "edited");
  expectSuccess((*provider)->stop(url("a.txt")));
  EXPECT_EQ(read(storage + "/a.txt"), "edited") << "what was changed stays";
  expectSuccess((*provider)->changed(url("a.txt")));
  EXPECT_EQ(read(origin + "/a.txt"), "edited");
  EXPECT_NE(status(origin + "/a.txt").st_ino, before) << "replaced as a whole";
  EXPECT_EQ(identifier("a.txt"), a);
  expectSuccess((*provider)->stop(url("a.txt")));
  expectPlaceholder("a.txt");

  // A placeholder has nothing to write back.
  expectSuccess((*provider)->changed(url("a.txt")));
  EXPECT_EQ(read(origin + "/a.txt"), "edited");

  // An editor that puts a new file in the document's place; a new document in a new directory.
  expectSuccess((*provider)->start(url("a.txt")));
  write(storage + "/side", "replaced");
  fs::rename(storage + "/side", storage + "/a.txt");
  expectSuccess((*provider)->changed(url("a.txt")));
  EXPECT_EQ(read(origin + "/a.txt"), "replaced");
  EXPECT_EQ(identifier("a.txt"), a);
  fs::create_directories(storage + "/new/deep");
  write(storage + "/new/deep/d.txt", "d");
  expectSuccess((*provider)->changed(url("new/deep/d.txt")));
  EXPECT_EQ(read(origin + "/new/deep/d.txt"), "d");

  // Changed on both sides: neither content is lost.
  expectSuccess((*provider)->start(url("letters/b.txt")));
  write(origin + "/letters/b.txt", "from the origin");
  write(storage + "/letters/b.txt", "from here");
  expectSuccess((*provider)->start(url("letters/b.txt")));
  EXPECT_EQ(read(storage + "/letters/b.txt"), "from here");
  expectSuccess((*provider)->changed(url("letters/b.txt")));
  std::vector<std::string> contents;
  for (const auto& entry : fs::directory_iterator(origin + "/letters")) {
    if (entry.is_regular_file()) contents.push_back(read(entry.path()));
  }
  std::sort(contents.begin(), contents.end());
  EXPECT_EQ(contents, (std::vector<std::string>{"from here", "from the origin"}));

  EXPECT_TRUE((*provider)->changed(url("nothing.txt")).error);
}

TEST_P(FolderProviderTest, IdentifiersOutliveRenamesOfTheOriginsParent) {
  const std::string a = identifier("a.txt");
  const std::string c = identifier("letters/old/c.txt");
  EXPECT_NE(a, c);
  EXPECT_NE(a, "");
  fs::rename(parent, root / "elsewhere");
  EXPECT_TRUE((*provider)->start(url("a.txt")).error->is("QXStandardErrorDomain", 260));
  EXPECT_TRUE((*provider)->setUp().error);
  EXPECT_TRUE(fs::exists(storage + "/a.txt")) << "an origin that is away removes nothing";
  EXPECT_EQ(identifier("a.txt"), a);

  origin = root / "elsewhere/origin";
  configure(origin);
  restart();
  EXPECT_EQ((*provider)->url(c).url, url("letters/old/c.txt"));
  expectSuccess((*provider)->setUp());
  EXPECT_EQ(identifier("a.txt"), a);
  EXPECT_EQ((*provider)->url(a).url, url("a.txt"));
  expectSuccess((*provider)->start(url("a.txt")));
  EXPECT_EQ(read(storage + "/a.txt"), "the letter a");

  // Nothing but the origin knows the identifiers now.
  if (attributes()) {
    provider->end();
    fs::remove_all(storage);
    start();
    expectSuccess((*provider)->setUp());
    EXPECT_EQ(identifier("a.txt"), a);
  }
}

TEST_P(FolderProviderTest, IdentifiersFollowADocumentThatIsRenamedInTheOrigin) {
  if (!attributes()) GTEST_SKIP() << "without attributes the path is the identifier";
  const std::string a = identifier("a.txt");
  const std::string b = identifier("letters/b.txt");
  fs::rename(origin + "/a.txt", origin + "/letters/renamed.txt");
  write(origin + "/a.txt", "another a");
  // Before anybody noticed, the document is still itself.
  expectSuccess((*provider)->start(url("a.txt")));
  EXPECT_EQ(read(storage + "/a.txt"), "the letter a");
  ASSERT_EQ(std::system(
                ("cp --preserve=all '" + origin + "/letters/b.txt' '" + origin + "/copy of b.txt'")
                    .c_str()),
            0);

  restart();
  expectSuccess((*provider)->setUp());
  EXPECT_EQ((*provider)->url(a).url, url("letters/renamed.txt"));
  EXPECT_EQ(read(storage + "/letters/renamed.txt"), "the letter a");
  EXPECT_NE(identifier("a.txt"), a);
  expectPlaceholder("a.txt");
  EXPECT_EQ(identifier("letters/b.txt"), b) << "the copy is the one that is new";
  EXPECT_NE(identifier("copy of b.txt"), b);
}

TEST_P(FolderProviderTest, WhatTheOriginLostIsAnErrorOrStaysWhatItWas) {
  const std::string a = identifier("a.txt");
  const std::string b = identifier("letters/b.txt");
  expectSuccess((*provider)->start(url("letters/b.txt")));
  fs::remove(origin + "/a.txt");
  fs::remove(origin + "/letters/b.txt");
  EXPECT_TRUE((*provider)->start(url("a.txt")).error->is("QXStandardErrorDomain", 260));
  EXPECT_TRUE((*provider)->url(a).error->is("DSErrorDomain", 1));
  EXPECT_TRUE((*provider)->url("no such item").error->is("DSErrorDomain", 1));
  EXPECT_TRUE((*provider)->url("path:").error);
  EXPECT_TRUE((*provider)->url("path:../../secret").error);
  EXPECT_TRUE((*provider)->identifier(url("nothing.txt")).error);

  // The content that is here is the last there is.
  expectSuccess((*provider)->stop(url("letters/b.txt")));
  expectSuccess((*provider)->setUp());
  EXPECT_FALSE(fs::exists(storage + "/a.txt"));
  EXPECT_EQ(read(storage + "/letters/b.txt"), "b");
  EXPECT_EQ((*provider)->url(b).url, url("letters/b.txt"));
  write(storage + "/letters/b.txt", "b again");
  expectSuccess((*provider)->changed(url("letters/b.txt")));
  EXPECT_EQ(read(origin + "/letters/b.txt"), "b again");

  configure("relative/path");
  EXPECT_TRUE((*provider)->setUp().error->is("FolderProviderErrorDomain", 1));
}

TEST_P(FolderProviderTest, AKilledProviderLeavesPlaceholdersOrContentButNothingBetween) {
  const std::string big(4U << 20U, 'x');
  write(origin + "/big.bin", big);
  expectSuccess((*provider)->setUp());
  const std::string path = storage + "/big.bin";
  for (int round = 0; round < 2; ++round) {
    (*provider)->vendor()->_startProvidingItemAtURL_completion(url("big.bin"), {});
    // Somewhere in the middle: when the first blocks have arrived.
    while (status(path).st_blocks == 0) ::sched_yield();
    provider->kill();
    provider->end();
    start();
    if (attributes() && ::getxattr(path.c_str(), "user.docsource.placeholder", nullptr, 0) < 0) {
      EXPECT_TRUE(read(path) == big);
    }
    // Nothing that was half brought in is ever taken for a change.
    expectSuccess((*provider)->changed(url("big.bin")));
    EXPECT_TRUE(read(origin + "/big.bin") == big);
    expectSuccess((*provider)->setUp());
    expectSuccess((*provider)->stop(url("big.bin")));
    expectPlaceholder("big.bin");
  }
  expectSuccess((*provider)->start(url("big.bin")));
  EXPECT_TRUE(read(path) == big);
}

}  // namespace
