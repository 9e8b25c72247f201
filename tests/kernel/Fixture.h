#pragma once

#include <gtest/gtest.h>
#include <sys/xattr.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sstream>

#include "platform/base/Errors.h"
#include "platform/coordination/FileCoordinationProtocol.h"
#include "platform/coordination/QXFileCoordinator.h"
#include "platform/files/InodeMark.h"
#include "platform/platformd/kernel/FanotifyGroup.h"
#include "tests/support/BundleMaker.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Daemons.h"
#include "tests/support/TemporaryRoot.h"

namespace qx::test {

namespace fs = std::filesystem;

/// The content of a document, told from its name alone; no byte of it is zero.
inline std::string contentOf(const std::string& name, std::size_t size) {
  std::size_t at = std::hash<std::string>()(name) % 251;
  std::string text(size, ' ');
  for (auto& byte : text) byte = static_cast<char>('a' + at++ % 26);
  return text;
}

inline std::string readAll(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ofstream::binary).rdbuf();
  return text.str();
}

/// What the mark of a placeholder says of its inode.
enum class Mark { named, plain };

inline void mark(int file, Mark kind) {
  const std::string text =
      kind == Mark::named ? "placeholder " + markWord(*inodeNameOf(file)) : "absent";
  ASSERT_EQ(fsetxattr(file, "user.docsource.placeholder", text.data(), text.size(), 0), 0);
}

/// A provider does one thing at a time to a document: what it was asked by a worker that has died
/// since may come after the next eviction.
inline std::mutex& providing() {
  static auto& mutex = *new std::mutex;
  return mutex;
}

/// A placeholder as a provider makes it, of a new file or of a document: the mark, then the time,
/// then no blocks and the real size.
inline void makePlaceholder(const std::string& path, std::size_t size, Mark kind = Mark::plain) {
  const std::lock_guard lock(providing());
  const FileDescriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  ASSERT_TRUE(file) << path;
  mark(file.get(), kind);
  struct stat status {};
  ASSERT_EQ(fstat(file.get(), &status), 0);
  const timespec times[2] = {{0, UTIME_OMIT}, status.st_mtim};
  ASSERT_EQ(futimens(file.get(), times), 0);
  ASSERT_EQ(fallocate(file.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 1 << 30), 0);
  ASSERT_EQ(ftruncate(file.get(), static_cast<off_t>(size)), 0) << strerror(errno);
}

/// Fills it in place, in pieces, if it is a placeholder still.
inline void fill(const std::string& path) {
  const std::lock_guard lock(providing());
  const FileDescriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (fgetxattr(file.get(), "user.docsource.placeholder", nullptr, 0) < 0) return;
  struct stat status {};
  fstat(file.get(), &status);
  const std::string text =
      contentOf(fs::path(path).filename(), static_cast<std::size_t>(status.st_size));
  const std::size_t half = text.size() / 2;
  EXPECT_EQ(pwrite(file.get(), text.data() + half, text.size() - half, off_t(half)),
            ssize_t(text.size() - half))
      << strerror(errno);
  EXPECT_EQ(pwrite(file.get(), text.data(), half, 0), ssize_t(half));
  fremovexattr(file.get(), "user.docsource.placeholder");
}

/// A doc source whose provider is this process. It fills what it is asked for, unless the test
/// says otherwise.
class TestSource final : public QXDocSource {
 public:
  TestSource(std::string identifier, const std::string& directory)
      : identifier_(std::move(identifier)), directory_(URL::fileURL(directory, true)) {}

  std::optional<URL> _providedItemsURL() override { return directory_; }
  std::shared_ptr<OperationQueue> _providedItemsOperationQueue() override { return queue_; }
  std::optional<std::string> _fileReactorID() override { return identifier_; }
  void _provideItemAtURL_completionHandler(const std::optional<URL>&, Completion<Error>) override {}
  void _provideItemAtURL_toReaderWithID_completionHandler(const std::optional<URL>& url,
                                                          const std::optional<std::string>& reader,
                                                          Completion<Error> completion) override {
    const std::string path = *url->path();
    readers.put(*reader);
    provides.put(path);
    std::function<void(const std::string&, Completion<Error>)> how;
    {
      const std::lock_guard lock(mutex_);
      how = how_;
    }
    if (how) {
      how(path, std::move(completion));
    } else {
      fill(path);
      completion(std::nullopt);
    }
  }
  void _writerWithID_didFinishWritingForURL(const std::optional<std::string>& writer,
                                            const std::optional<URL>& url) override {
    writers.put(*writer);
    writes.put(*url->path());
  }

  void behave(std::function<void(const std::string& path, Completion<Error>)> how) {
    const std::lock_guard lock(mutex_);
    how_ = std::move(how);
  }
  std::size_t provideCount(const std::string& path) const {
    const auto all = provides.all();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), path));
  }

  Mailbox<std::string> provides, readers, writes, writers;

 private:
  const std::string identifier_;
  const URL directory_;
  const std::shared_ptr<OperationQueue> queue_ = std::make_shared<OperationQueue>();
  std::mutex mutex_;
  std::function<void(const std::string&, Completion<Error>)> how_;
};

/// Why programs cannot be coordinated here in that way, if so.
inline std::optional<std::string> reasonNotToWatch(const std::string& mechanism) {
  const auto group = kernel::AccessGroup::create();
  if (!group) return "needs CAP_SYS_ADMIN: " + group.error().text();
  if (mechanism == "open" || group->knowsAccess("/tmp")) return std::nullopt;
  return "needs a kernel and file system with FAN_PRE_ACCESS";
}

/// A platformd of its own, this process in the role of the daemon, and a directory of documents.
/// Everything holds both where accesses are told and where only openings are.
class KernelTest : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    if (const auto reason = reasonNotToWatch(GetParam())) GTEST_SKIP() << *reason;
    temporaryRoot();
    beApplication("com.example.tests", {{fileCoordinationHostEntitlement, true}});
    fs::create_directories(items());
    start();
  }
  void TearDown() override {
    for (auto& source : sources_) QXFileCoordinator::_removeDocSource(source);
  }

  void start(std::map<std::string, std::string> environment = {}) {
    environment.emplace("DOCSOURCE_COORDINATION", GetParam());
    platformd_.emplace("platformd", temporaryRoot(), environment);
    ASSERT_TRUE(platformd_->logs("Every program is coordinated"));
    ASSERT_TRUE(platformd_->logs("placeholders from before."));
  }

  static bool byAccess() { return GetParam() == std::string("access"); }

  static std::string items() { return temporaryRoot() + "/Items"; }
  static std::string item(const std::string& name) { return items() + "/" + name; }

  /// Adds a doc source and waits until its directory is watched.
  std::shared_ptr<TestSource> add(const std::string& identifier = "com.example.source",
                                  const std::string& directory = items()) {
    auto source = std::make_shared<TestSource>(identifier, directory);
    sources_.push_back(source);
    QXFileCoordinator::_addDocSource(source);
    if (fs::exists(directory)) {
      EXPECT_TRUE(isWatched(identifier));
    }
    return source;
  }
  bool isWatched(const std::string& identifier, std::size_t times = 1) const {
    return platformd_->logs(" placeholders of doc source " + identifier + ".", times);
  }

  /// The process that serves, a child of the one that holds.
  pid_t worker() const {
    const std::string id = std::to_string(platformd_->id());
    pid_t child = -1;
    std::ifstream("/proc/" + id + "/task/" + id + "/children") >> child;
    return child;
  }

  std::optional<Daemon> platformd_;
  std::vector<std::shared_ptr<TestSource>> sources_;
};

/// Runs a program to its end; its status and output, up to the first line.
struct Ran {
  int status = -1;
  std::string line;
};
inline Ran run(std::vector<std::string> arguments) {
  ChildProcess program(std::move(arguments));
  Ran ran;
  ran.line = program.readLine();
  ran.status = program.wait();
  return ran;
}
inline Ran shell(const std::string& command) { return run({"/bin/sh", "-c", command}); }

/// This program as a reader of one file (see Main.cpp): "right" or what was wrong.
inline std::vector<std::string> reader(const std::string& how, const std::string& path) {
  return {ownProgram(), how, path};
}

/// At the end of each file of tests.
#define IN_BOTH_WAYS(FIXTURE)                                              \
  INSTANTIATE_TEST_SUITE_P(By, FIXTURE, testing::Values("access", "open"), \
                           [](const auto& parameter) { return std::string(parameter.param); })

}  // namespace qx::test
