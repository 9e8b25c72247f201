#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/fsuid.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cstring>
#include <fstream>
#include <random>

#include "platform/sandbox/Sandbox.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;
using qx::AuditToken;
using qx::test::ChildProcess;
using qx::test::TemporaryDirectory;

/// A shell that tries what it is told: "r path" to open for reading, "w path" for writing.
const std::string prober =
    "while read o p; do if [ $o = r ]; then (: < \"$p\"); else (: >> \"$p\"); fi 2>/dev/null "
    "&& echo yes || echo no; done";

class SandboxCheckTest : public testing::Test {
 protected:
  void SetUp() override { chmod(root.path().c_str(), 0755); }

  static int check(const ChildProcess& process, const std::string& path, bool toWrite) {
    return SandboxCheckByAuditToken(AuditToken::ofProcess(process.id()),
                                    toWrite ? "file-write-data" : "file-read-data",
                                    qx::SandboxFilter::path, qx::sandboxCheckNoReport, path);
  }
  static int canRead(const ChildProcess& process, const std::string& path) {
    return check(process, path, false);
  }
  static int canWrite(const ChildProcess& process, const std::string& path) {
    return check(process, path, true);
  }

  std::string file(const std::string& name, mode_t mode = 0644) {
    auto path = root / name;
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << "text";
    chmod(path.c_str(), mode);
    return path;
  }

  /// A shell in namespaces of its own, after `preparation`; null when there are none to be had.
  static std::unique_ptr<ChildProcess> inNamespaces(const std::string& preparation,
                                                    const std::string& then = "exec cat") {
    auto process = std::make_unique<ChildProcess>(std::vector<std::string>{
        "unshare", "--user", "--map-root-user", "--mount", "sh", "-c",
        "mount -t tmpfs none /mnt && echo able && " + preparation + " && echo ready && " + then});
    if (process->readLine() != "able") return nullptr;
    EXPECT_EQ(process->readLine(), "ready");
    return process;
  }

  TemporaryDirectory root;
};

TEST_F(SandboxCheckTest, OnlyAProcessThatIsThereMayDoAnything) {
  auto path = file("document");
  ChildProcess process({"/bin/cat"});
  auto token = AuditToken::ofProcess(process.id());
  auto ask = [&](const AuditToken& who, std::string_view operation, const std::string& what) {
    return SandboxCheckByAuditToken(who, operation, qx::SandboxFilter::path, 0, what);
  };
  EXPECT_EQ(ask(token, "file-write-data", path), 0);
  EXPECT_EQ(ask(AuditToken(), "file-write-data", path), ESRCH);
  EXPECT_EQ(ask(token, "file-delete", path), EINVAL);
  EXPECT_EQ(ask(token, "", path), EINVAL);
  EXPECT_EQ(ask(token, "file-read-data", "document"), EINVAL);
  EXPECT_EQ(ask(token, "file-read-data", ""), EINVAL);
  EXPECT_EQ(ask(token, "file-read-data", path + '\0' + "x"), EINVAL);
  EXPECT_EQ(ask(token, "file-read-data", "/" + std::string(1 << 20, 'x')), ENAMETOOLONG);
  EXPECT_EQ(ask(token, "file-read-data", path + "x"), ENOENT);
  EXPECT_EQ(ask(token, "file-read-data", path + "/x"), ENOTDIR);
  EXPECT_EQ(ask(token, "file-read-data", path + "/"), ENOTDIR);
  EXPECT_EQ(SandboxCheckByAuditToken(token, "file-read-data", qx::SandboxFilter{2}, 0, path),
            EINVAL);
  process.end();
  EXPECT_EQ(ask(token, "file-write-data", path), ESRCH);
}

TEST_F(SandboxCheckTest, LinksLeadWhereTheKernelWouldGo) {
  auto path = file("a/b/document");
  ChildProcess process({"/bin/cat"});
  fs::create_symlink("b", root / "a/relative");
  fs::create_symlink(root / "a/b", root / "a/absolute");
  fs::create_symlink("../a/./b/../relative//document", root / "a/winding");
  fs::create_symlink("loop", root / "loop");
  fs::create_symlink("nowhere", root / "dangling");
  fs::create_symlink("document/", root / "a/b/slash");
  for (const char* way : {"a/relative/document", "a/absolute/document", "a/winding",
                          "a/b/../../a//b/./document", "../../../../../../../..//"}) {
    auto target = std::string(way).starts_with("../..") ? root / way + path : root / way;
    EXPECT_EQ(canRead(process, target), 0) << target;
  }
  EXPECT_EQ(canRead(process, root / "loop"), ELOOP);
  EXPECT_EQ(canRead(process, root / "dangling"), ENOENT);
  EXPECT_EQ(canRead(process, root / "a/b/slash"), ENOTDIR);

  // The kernel follows forty links and no more.
  fs::create_symlink("a/b/document", root / "link1");
  for (int link = 2; link <= 41; ++link) {
    fs::create_symlink("link" + std::to_string(link - 1), root / "link" + std::to_string(link));
  }
  EXPECT_EQ(canRead(process, root / "link40"), 0);
  EXPECT_EQ(canRead(process, root / "link41"), ELOOP);

  // What is behind a link of /proc depends on who looks.
  fs::create_symlink("/proc/self/root" + path, root / "magic");
  EXPECT_EQ(canRead(process, root / "magic"), EACCES);
  EXPECT_EQ(canRead(process, "/proc/self/environ"), EACCES);
}

/// An access-control list in the form of its extended attribute.
struct ListEntry {
  std::uint16_t tag, granted;
  std::uint32_t identifier;
};
bool setList(const std::string& path, const std::vector<ListEntry>& entries) {
  std::vector<char> bytes(4 + entries.size() * sizeof(ListEntry));
  bytes[0] = 2;
  std::memcpy(bytes.data() + 4, entries.data(), entries.size() * sizeof(ListEntry));
  return setxattr(path.c_str(), "system.posix_acl_access", bytes.data(), bytes.size(), 0) == 0;
}

/// Over a tree of directories and files with all sorts of owners, modes and lists, the answer is
/// what the process itself finds out by trying.
TEST_F(SandboxCheckTest, AnswersWhatTheProcessWouldFind) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to run programs as other users";
  constexpr uid_t user = 4001, otherUser = 4002;
  constexpr gid_t group = 5001, supplementary = 5002, otherGroup = 5003;
  std::mt19937 random(20261121);
  auto pick = [&](auto... choices) {
    std::array all{static_cast<unsigned>(choices)...};
    return all[random() % all.size()];
  };
  constexpr std::uint32_t none = 0xffffffff;
  auto permissions = [&] { return static_cast<std::uint16_t>(random() % 8); };
  bool hasLists = true;
  auto dress = [&](const std::string& path, bool isDirectory) {
    EXPECT_EQ(chown(path.c_str(), pick(0, user, otherUser, 65534),
                    pick(0, group, supplementary, otherGroup)),
              0);
    chmod(path.c_str(), isDirectory && random() % 3 ? 0755 : random() % 01000);
    if (random() % 2) return;
    std::vector<ListEntry> list{{1, permissions(), none}};
    for (uid_t named : {user, otherUser}) {
      if (random() % 2) list.push_back({2, permissions(), named});
    }
    list.push_back({4, permissions(), none});
    for (gid_t named : {group, supplementary, otherGroup}) {
      if (random() % 2) list.push_back({8, permissions(), named});
    }
    list.push_back({16, permissions(), none});
    list.push_back({32, permissions(), none});
    hasLists = setList(path, list) && hasLists;
  };

  std::vector<std::string> files;
  for (int number = 0; number < 120; ++number) {
    auto directory = root / "d" + std::to_string(number);
    files.push_back(file("d" + std::to_string(number) + "/file"));
    dress(files.back(), false);
    dress(directory, true);
  }
  if (!hasLists) std::puts("no access-control lists on this file system; modes alone are checked");

  auto as = [&](std::vector<std::string> capabilities) {
    std::vector<std::string> arguments{"setpriv", "--reuid=" + std::to_string(user),
                                       "--regid=" + std::to_string(group),
                                       "--groups=" + std::to_string(supplementary)};
    for (auto& argument : capabilities) arguments.push_back(argument);
    arguments.insert(arguments.end(), {"sh", "-c", prober});
    return arguments;
  };
  const std::vector<std::string> programs[] = {
      as({}),
      as({"--inh-caps=-all,+dac_read_search", "--ambient-caps=-all,+dac_read_search"}),
      as({"--inh-caps=-all,+dac_override", "--ambient-caps=-all,+dac_override"}),
      {"setpriv", "--bounding-set=-dac_override,-dac_read_search", "sh", "-c", prober},
      {"sh", "-c", prober},
      {"unshare", "--user", "--map-root-user", "sh", "-c", prober},
  };
  for (const auto& arguments : programs) {
    ChildProcess process(arguments);
    if (process.ask("r /dev/null") != "yes") {
      std::printf("skipped: cannot run %s\n", arguments[0].c_str());
      continue;
    }
    std::size_t allowed = 0;
    for (const auto& path : files) {
      for (bool toWrite : {false, true}) {
        bool can = process.ask((toWrite ? "w " : "r ") + path) == "yes";
        allowed += can;
        auto answer = check(process, path, toWrite);
        EXPECT_EQ(answer, can ? 0 : EACCES)
            << testing::PrintToString(arguments) << " " << toWrite << " " << path;
      }
    }
    EXPECT_GT(allowed, 0u);
  }
}

/// What the permissions alone do not say.
TEST_F(SandboxCheckTest, MindsTheLinksOfSharedDirectoriesAndTheAttributesOfFiles) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to make what belongs to other users";
  constexpr uid_t user = 4001, otherUser = 4002;
  ChildProcess process(
      {"setpriv", "--reuid=" + std::to_string(user), "--regid=5001", "--clear-groups", "cat"});
  ASSERT_EQ(process.ask("ready"), "ready");
  const auto document = file("document", 0666);
  const auto linkIn = [&](const std::string& directory, mode_t mode, uid_t owner) {
    const auto path = root / directory;
    fs::create_directories(path);
    chmod(path.c_str(), mode);
    fs::create_symlink(document, path + "/link");
    EXPECT_EQ(lchown((path + "/link").c_str(), owner, 0), 0);
    return path + "/link";
  };
  EXPECT_EQ(canRead(process, linkIn("shared1", 01777, otherUser)), EACCES);
  EXPECT_EQ(canRead(process, linkIn("shared2", 01777, user)), 0);
  EXPECT_EQ(canRead(process, linkIn("shared3", 01777, 0)), 0) << "the directory's owner";
  EXPECT_EQ(canRead(process, linkIn("shared4", 01775, otherUser)), 0) << "not everybody's";
  EXPECT_EQ(canRead(process, linkIn("shared5", 00777, otherUser)), 0) << "not sticky";

  const qx::FileDescriptor descriptor(open(document.c_str(), O_RDONLY | O_CLOEXEC));
  const auto setFlags = [&](int flags) {
    return ioctl(descriptor.get(), FS_IOC_SETFLAGS, &flags) == 0;
  };
  if (!setFlags(FS_IMMUTABLE_FL)) {
    std::puts("this file system has no immutable files");
    return;
  }
  EXPECT_EQ(canRead(process, document), 0);
  EXPECT_EQ(canWrite(process, document), EPERM);
  EXPECT_TRUE(setFlags(FS_APPEND_FL));
  EXPECT_EQ(canWrite(process, document), EPERM);
  EXPECT_TRUE(setFlags(0));
  EXPECT_EQ(canWrite(process, document), 0);
}

TEST_F(SandboxCheckTest, GoesByTheUserOfTheFileSystem) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to be two users";
  constexpr uid_t user = 4001;
  const auto its = file("its", 0600), roots = file("roots", 0600);
  ASSERT_EQ(chown(its.c_str(), user, 0), 0);
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  const qx::FileDescriptor output(ends[0]), input(ends[1]);
  const pid_t id = fork();
  if (id == 0) {
    setfsuid(user);
    if (write(input.get(), "x", 1) != 1) _exit(1);
    for (;;) pause();
  }
  char byte = 0;
  ASSERT_EQ(read(output.get(), &byte, 1), 1);
  const auto check = [&](const std::string& path) {
    return SandboxCheckByAuditToken(AuditToken::ofProcess(id), "file-write-data",
                                    qx::SandboxFilter::path, 0, path);
  };
  EXPECT_EQ(check(its), 0);
  EXPECT_EQ(check(roots), EACCES);
  kill(id, SIGKILL);
  waitpid(id, nullptr, 0);
}

TEST_F(SandboxCheckTest, AnswersFromInsideTheMountNamespace) {
  auto path = file("documents/document");
  auto hidden = file("hidden/document");
  auto covered = file("covered");
  auto other = file("other");
  auto frozen = file("frozen/document");
  auto process =
      inNamespaces("mount -t tmpfs none '" + root / "hidden" + "' && mount --bind '" + other +
                   "' '" + covered + "' && mount --bind '" + root / "frozen" + "' '" +
                   root / "frozen" + "' && mount -o remount,bind,ro '" + root / "frozen" + "'");
  if (!process) GTEST_SKIP() << "no user and mount namespaces here";
  EXPECT_EQ(canWrite(*process, path), 0);
  EXPECT_EQ(canRead(*process, hidden), ENOENT);
  EXPECT_EQ(canRead(*process, covered), EACCES) << "another file than outside";
  EXPECT_EQ(canRead(*process, other), 0);
  EXPECT_EQ(canRead(*process, frozen), 0);
  EXPECT_EQ(canWrite(*process, frozen), EROFS);
  EXPECT_EQ(canRead(*process, root / "documents/../hidden/../documents/document"), 0);
  EXPECT_EQ(canRead(*process, root / "hidden/../../../../../.." + path), 0);
}

TEST_F(SandboxCheckTest, NeverLeavesTheRootOfTheProcess) {
  // A root of its own that has one directory in common with the outside.
  auto inside = file("shared/document");
  auto outside = file("outside/document");
  fs::create_symlink("../../../../../../../../.." + outside, root / "shared/up");
  fs::create_symlink(outside, root / "shared/absolute");
  fs::create_symlink("../../../../../../../../.." + inside, root / "shared/around");
  auto jail = root / "jail";
  auto process = inNamespaces("mkdir -p /mnt/bin /mnt'" + root / "shared" + "' && mount --bind '" +
                                  root / "shared" + "' /mnt'" + root / "shared" +
                                  "' && for d in /bin /lib /lib64 /usr; do mkdir -p /mnt$d; "
                                  "mount --rbind $d /mnt$d; done",
                              "exec chroot /mnt /bin/cat");
  if (!process) GTEST_SKIP() << "no user and mount namespaces here";
  ASSERT_EQ(process->ask("hello"), "hello");
  EXPECT_EQ(canRead(*process, inside), 0);
  EXPECT_EQ(canRead(*process, root / "shared/around"), 0);
  EXPECT_EQ(canRead(*process, outside), ENOENT);
  EXPECT_EQ(canRead(*process, root / "shared/up"), ENOENT);
  EXPECT_EQ(canRead(*process, root / "shared/absolute"), ENOENT);
  EXPECT_EQ(canRead(*process, root / "shared/../outside/document"), ENOENT);
}

}  // namespace
