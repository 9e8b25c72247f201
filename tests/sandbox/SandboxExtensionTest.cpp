#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>
#include <thread>

#include "platform/base/Errors.h"
#include "platform/files/FileManager.h"
#include "platform/sandbox/Sandbox.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryRoot.h"

namespace {

namespace fs = std::filesystem;
using namespace qx::test;

class SandboxExtensionTest : public testing::Test {
 protected:
  void SetUp() override {
    temporaryRoot();
    fs::remove_all(qx::Places::sandboxKey());
    fs::create_directory(files / "folder");
    write(path, "content");
  }

  static void write(const std::string& file, const std::string& text) {
    std::ofstream(file) << text;
  }
  static std::optional<std::string> issue(
      const std::string& file, std::string_view itsClass = qx::sandboxExtensionReadWrite) {
    return SandboxIssueFileExtension(itsClass, file, 0);
  }
  static bool isRedeemed(const std::string& token) {
    return qx::consumeSandboxExtension(token).ok();
  }
  /// The POSIX error that stood in the way of redeeming.
  static std::int64_t failureOf(const std::string& token) {
    auto redeemed = qx::consumeSandboxExtension(token);
    if (redeemed) return 0;
    auto error = redeemed.error();
    if (error.is(QXStandardErrorDomain, qx::fileNoSuchFileError)) return ENOENT;
    return error.underlyingError().value_or(error).code();
  }

  TemporaryDirectory files;
  std::string path = files / "folder/document";
};

TEST_F(SandboxExtensionTest, ATokenOpensItsFileAsItsClassSays) {
  for (const std::string name :
       {"plain", "with space", "ümläut", "a:b%41:c", "line\nbreak\x7f", "\xff\xfe", "quote\"'"}) {
    auto file = files / "folder/" + name;
    write(file, "before");
    auto token = issue(file);
    auto readToken = issue(file, qx::sandboxExtensionRead);
    ASSERT_TRUE(token && readToken) << name;
    for (const auto& text : {*token, *readToken}) {
      EXPECT_LE(text.size(), 4096u);
      EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 127; }));
    }
    EXPECT_NE(issue(file), token) << "no two tokens are the same";

    auto writer = qx::consumeSandboxExtension(*token);
    ASSERT_TRUE(writer) << writer.error().text();
    EXPECT_EQ(fcntl(writer->get(), F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR);
    EXPECT_EQ(pwrite(writer->get(), "after!", 6, 0), 6);
    auto reader = qx::consumeSandboxExtension(*readToken);
    ASSERT_TRUE(reader);
    EXPECT_EQ(fcntl(reader->get(), F_GETFL) & O_ACCMODE, O_RDONLY);
    char text[7] = {};
    EXPECT_EQ(pread(reader->get(), text, 6, 0), 6);
    EXPECT_STREQ(text, "after!");
  }
}

TEST_F(SandboxExtensionTest, OnlyARegularFileReachedWithoutALinkHasOne) {
  fs::create_symlink("document", files / "folder/link");
  mkfifo((files / "folder/pipe").c_str(), 0600);
  fs::create_directory_symlink("folder", files / "other");
  for (const auto& none :
       {files / "folder/missing", files / "missing/document", files / "folder/link", path + "/",
        files / "folder", files / "folder/pipe", std::string("document"), std::string(),
        path + '\0' + "x"}) {
    EXPECT_FALSE(issue(none)) << none;
  }
  EXPECT_FALSE(issue(path, "com.veltro.sandbox.everything"));
  EXPECT_FALSE(issue(path, ""));

  // A link on the way is resolved when the token is made.
  auto token = issue(files / "other/document");
  ASSERT_TRUE(token);
  EXPECT_TRUE(isRedeemed(*token));

  // A path whose token would be too long.
  std::string deep = files.path();
  for (int level = 0; level < 8; ++level) {
    deep += "/";
    for (int letter = 0; letter < 100; ++letter) deep += "ü";
    fs::create_directory(deep);
  }
  write(deep + "/document", "text");
  EXPECT_FALSE(issue(deep + "/document"));
}

TEST_F(SandboxExtensionTest, AnAlteredTokenIsWorthNothing) {
  auto token = *issue(path, qx::sandboxExtensionRead);
  for (std::size_t at = 0; at < token.size(); ++at) {
    auto altered = token;
    altered[at] = static_cast<char>(altered[at] ^ 1);
    EXPECT_EQ(failureOf(altered), EBADMSG) << at;
    altered = token;
    altered[at] = static_cast<char>(std::toupper(altered[at]));
    EXPECT_EQ(failureOf(altered), altered == token ? 0 : EBADMSG) << at;
    EXPECT_EQ(failureOf(token.substr(0, at)), EBADMSG) << at;
  }
  for (const auto& more : {std::string("0"), std::string(":"), std::string(1 << 20, '0')}) {
    EXPECT_EQ(failureOf(token + more), EBADMSG);
  }

  auto more = token;
  more.replace(more.find(qx::sandboxExtensionRead), qx::sandboxExtensionRead.size(),
               qx::sandboxExtensionReadWrite);
  EXPECT_EQ(failureOf(more), EBADMSG);

  // The code of one token on the content of another.
  write(files / "folder/secret", "secret");
  auto other = *issue(files / "folder/secret", qx::sandboxExtensionRead);
  EXPECT_EQ(failureOf(other.substr(0, other.rfind(':')) + token.substr(token.rfind(':'))), EBADMSG);
  EXPECT_TRUE(isRedeemed(token));
}

TEST_F(SandboxExtensionTest, ATokenDiesWithItsKey) {
  auto token = *issue(path);
  fs::rename(qx::Places::sandboxKey(), qx::Places::sandboxKey() + ".old");
  EXPECT_EQ(failureOf(token), EBADMSG);
  EXPECT_FALSE(fs::exists(qx::Places::sandboxKey())) << "redeeming makes no key";
  auto next = *issue(path);
  EXPECT_EQ(failureOf(token), EBADMSG);
  EXPECT_TRUE(isRedeemed(next));
  fs::rename(qx::Places::sandboxKey() + ".old", qx::Places::sandboxKey());
  EXPECT_TRUE(isRedeemed(token));
  EXPECT_EQ(failureOf(next), EBADMSG);
}

TEST_F(SandboxExtensionTest, WhatWasTakenBackIsGoneForEverybodyUnderEveryName) {
  const auto otherName = files / "folder/other name", other = files / "folder/other";
  fs::create_hard_link(path, otherName);
  write(other, "other");
  const auto token = *issue(path), linked = *issue(otherName), good = *issue(other);
  const auto list = qx::Places::runtimeDirectory() + "/sandbox.taken-back";
  ASSERT_FALSE(SandboxTakeBackFileExtensions(files / "folder/../folder/document"));
  EXPECT_EQ(failureOf(token), EBADMSG);
  EXPECT_EQ(failureOf(linked), EBADMSG);
  EXPECT_TRUE(isRedeemed(good));
  const auto anew = *issue(path);
  EXPECT_TRUE(isRedeemed(anew)) << "who still has a grant gets another one";
  // Saved as another file, and moved: it is what was at the path, and that file.
  write(files / "new", "new");
  fs::rename(path, files / "away");
  fs::rename(files / "new", path);
  EXPECT_EQ(failureOf(token), EBADMSG);
  EXPECT_TRUE(isRedeemed(anew));
  fs::remove(path);
  ASSERT_FALSE(SandboxTakeBackFileExtensions(path)) << "that is not there any more";
  write(path, "again");
  EXPECT_EQ(failureOf(anew), EBADMSG);

  // A list that grew too long takes older ones with it, and stays readable in one piece.
  EXPECT_TRUE(isRedeemed(good));
  for (int i = 0; i < 1100; ++i) {
    ASSERT_FALSE(SandboxTakeBackFileExtensions(files / std::to_string(i)));
  }
  EXPECT_EQ(failureOf(good), EBADMSG);
  EXPECT_LE(fs::file_size(list), 256U << 10U);
  EXPECT_TRUE(isRedeemed(*issue(other)));

  // What cannot be understood is not taken for an empty list; that of another boot is.
  auto next = *issue(other);
  write(list, qx::FileManager::readFile(list)->substr(0, 60));
  LogCapture log;
  EXPECT_EQ(failureOf(next), EBADMSG);
  ASSERT_FALSE(SandboxTakeBackFileExtensions(path));
  EXPECT_EQ(failureOf(next), EBADMSG);
  next = *issue(other);
  EXPECT_TRUE(isRedeemed(next));
  write(list, "another boot\n99999999999999999\n");
  EXPECT_TRUE(isRedeemed(next));
}

TEST_F(SandboxExtensionTest, OpensNothingButTheFileThatWasMeant) {
  auto token = *issue(path);
  auto secret = files / "secret";
  write(secret, "secret");
  auto away = files / "away";
  struct Case {
    std::int64_t failure;
    std::function<void()> swap;
  };
  const Case cases[] = {
      {ENOENT, [&] { fs::remove(path); }},
      {ENOENT, [&] { fs::rename(files / "folder", away); }},
      {ELOOP, [&] { fs::remove(path), fs::create_symlink(secret, path); }},
      {ELOOP, [&] { fs::remove(path), fs::create_symlink("other", path); }},
      {ELOOP,
       [&] { fs::rename(files / "folder", away), fs::create_symlink(away, files / "folder"); }},
      {EISDIR, [&] { fs::remove(path), fs::create_directory(path); }},
      {EINVAL, [&] { fs::remove(path), mkfifo(path.c_str(), 0600); }},
  };
  for (const auto& [failure, swap] : cases) {
    swap();
    EXPECT_EQ(failureOf(token), failure);
    for (const auto& leftover : {files / "folder", away}) fs::remove_all(leftover);
    fs::create_directory(files / "folder");
    write(path, "content");
    EXPECT_TRUE(isRedeemed(token)) << "the file is back, and may have been saved anew";
  }
  // Nor does opening wait for a process that holds the file.
  ChildProcess holder({"python3", "-c",
                       "import fcntl, signal, sys\n"
                       "signal.signal(signal.SIGIO, signal.SIG_IGN)\n"
                       "file = open(sys.argv[1])\n"
                       "fcntl.fcntl(file, fcntl.F_SETLEASE, fcntl.F_RDLCK)\n"
                       "print('held', flush=True)\n"
                       "sys.stdin.read()",
                       path});
  ASSERT_EQ(holder.readLine(), "held");
  EXPECT_EQ(failureOf(token), EAGAIN);
}

TEST_F(SandboxExtensionTest, AKeyThatOthersCouldKnowIsRefused) {
  auto key = qx::Places::sandboxKey();
  auto token = *issue(path);
  struct stat status;
  ASSERT_EQ(lstat(key.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFREG | 0600u);
  EXPECT_EQ(status.st_size, 32);
  const std::function<void()> spoilings[] = {
      [&] { chmod(key.c_str(), 0640); },
      [&] { chmod(key.c_str(), 0604); },
      [&] { fs::resize_file(key, 31); },
      [&] { fs::resize_file(key, 33); },
      [&] { fs::resize_file(key, 0); },
      [&] { fs::rename(key, files / "key"), fs::create_symlink(files / "key", key); },
      [&] { fs::remove(key), fs::create_directory(key); },
      [&] { fs::remove(key), mkfifo(key.c_str(), 0600); },
      [&] {
        if (geteuid() != 0) return chmod(key.c_str(), 0606), void();
        EXPECT_EQ(chown(key.c_str(), 4001, 0), 0);
      },
  };
  for (const auto& spoil : spoilings) {
    fs::remove_all(key);
    token = *issue(path);
    ASSERT_TRUE(isRedeemed(token));
    LogCapture log;
    spoil();
    EXPECT_FALSE(issue(path)) << &spoil - spoilings;
    EXPECT_EQ(failureOf(token), EBADMSG) << &spoil - spoilings;
    EXPECT_EQ(LogCapture::count("Refusing the sandbox key of user "), 2u) << &spoil - spoilings;
  }
}

TEST_F(SandboxExtensionTest, ThoseWhoMakeAKeyAtOnceAgree) {
  for (int round = 0; round < 20; ++round) {
    fs::remove(qx::Places::sandboxKey());
    std::vector<std::optional<std::string>> tokens(8);
    std::vector<std::thread> threads;
    for (auto& token : tokens) threads.emplace_back([&] { token = issue(path); });
    for (auto& thread : threads) thread.join();
    for (const auto& token : tokens) EXPECT_TRUE(token && isRedeemed(*token));
  }
  auto left = std::count_if(fs::directory_iterator(qx::Places::runtimeDirectory()), {},
                            [](const fs::directory_entry& entry) {
                              return entry.path().filename().string().starts_with("sandbox.key");
                            });
  EXPECT_EQ(left, 1) << "nothing but the key is left";
}

}  // namespace
