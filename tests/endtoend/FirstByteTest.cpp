// Reading that begins before everything is there: a slow server, real daemons, the account's own
// process, and programs that know nothing of documents.

#include <dirent.h>
#include <sys/mman.h>

#include <random>

#include "platform/coordination/CoordinationState.h"
#include "tests/endtoend/Broker.h"

namespace qx::test {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t mebibyte = 1U << 20U;
constexpr std::size_t size = 16 * mebibyte;

/// No block of it is zeros, and every seed gives another.
std::string versionOf(unsigned seed) {
  std::mt19937_64 random(seed);
  std::string text(size, ' ');
  for (std::size_t at = 0; at < size; at += 8) {
    const auto word = random() | 0x0101010101010101U;
    std::copy_n(reinterpret_cast<const char*>(&word), 8, text.data() + at);
  }
  return text;
}

class FirstByte : public Broker, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    if (!address_.starts_with("http")) GTEST_SKIP() << address_;
    fs::create_directory(home_);
    startPlatform({{"DOCSOURCE_COORDINATION", GetParam()}});
    if (!platform_->logs("Every program is coordinated")) GTEST_SKIP() << "needs CAP_SYS_ADMIN";
    const auto mechanism = FileManager::readFile(installation_ / "run/coordination");
    if (!mechanism || !mechanism->starts_with(GetParam())) {
      GTEST_SKIP() << "needs a kernel and file system with FAN_PRE_ACCESS";
    }
    start();
    put(there_, 1);
    proxy_.emplace(std::vector<std::string>{"python3", PROXY, port()});
    const auto slow = proxy_->readLine();
    ASSERT_EQ(tool("add webdav Work " + slow), 0);
    ASSERT_TRUE(eventually([&] { return fs::exists(here_); }));
    told(R"({"rate": 4000000, "delay": 0.02})");
  }
  void TearDown() override {
    if (proxy_) proxy_->wait();
    server_.wait();
  }

  std::string port() const {
    const auto at = address_.rfind(':') + 1;
    return address_.substr(at, address_.size() - at - 1);
  }
  void put(const std::string& path, unsigned seed) const {
    std::ofstream(places_ / "new") << versionOf(seed);
    fs::last_write_time(places_ / "new",
                        fs::file_time_type::clock::now() - std::chrono::hours(100 - seed));
    fs::rename(places_ / "new", path);
  }
  /// Tells the proxy how to be; how much it has passed on since it was told before.
  std::size_t told(const std::string& settings = "{}") {
    proxy_->writeLine(settings);
    return std::stoul("0" + proxy_->readLine());
  }
  int tool(const std::string& words) const { return shell("docsource " + words).status; }
  static FileDescriptor opened(const std::string& path, int flags = O_RDONLY) {
    return FileDescriptor(::open(path.c_str(), flags | O_CLOEXEC));
  }
  /// "right", or what became of it.
  static std::string part(const FileDescriptor& file, std::size_t at, std::size_t length,
                          unsigned seed = 1) {
    std::string bytes(length, '\0');
    const auto count = ::pread(file.get(), bytes.data(), length, static_cast<off_t>(at));
    if (count < 0) return std::strerror(errno);
    bytes.resize(static_cast<std::size_t>(count));
    if (bytes == versionOf(seed).substr(at, length)) return "right";
    return std::to_string(std::count(bytes.begin(), bytes.end(), '\0')) + " zeros in " +
           std::to_string(count);
  }
  bool isPlaceholder() const { return tool("status '" + here_ + "' | grep -q present") != 0; }
  std::string whole() const { return qx::test::contentOf(here_); }
  const std::string here_ = home_ + "/DocSource/Work/film";
  const std::string there_ = places_ / "server/files/film";
  ChildProcess server_{{"python3", WEBDAV_SERVERS, "lighttpd", places_ / "server"}};
  const std::string address_ = server_.readLine();
  std::optional<ChildProcess> proxy_;
};

INSTANTIATE_TEST_SUITE_P(By, FirstByte, testing::Values("access", "open"),
                         [](const auto& parameter) { return std::string(parameter.param); });

TEST_P(FirstByte, AReaderGoesOnWithItsPartAndEverybodyElseWithTheWhole) {
  const bool inParts = GetParam() == std::string("access");
  // Who reads a part has it though the whole does not come.
  told(inParts ? R"({"most": 4000000})" : "{}");
  {
    const auto file = opened(here_);
    EXPECT_EQ(part(file, 0, 131072), "right");
    EXPECT_EQ(part(file, size - 4096, 4096), "right");
    EXPECT_EQ(part(file, size, 10), "right");
    EXPECT_EQ(part(opened(here_), size / 2 + 5, 100000), "right");
    EXPECT_EQ(isPlaceholder(), inParts);
    const auto parts = told(R"({"most": 0})");
    // A mapping, which may grow.
    void* mapped = ::mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, file.get(), 0);
    ASSERT_NE(mapped, MAP_FAILED);
    EXPECT_FALSE(isPlaceholder());
    ::munmap(mapped, 4096);
    EXPECT_LT(parts + told(), size + 2 * mebibyte);
  }
  EXPECT_TRUE(whole() == versionOf(1));
  ASSERT_EQ(tool("evict '" + here_ + "'"), 0);
  told(R"({"rate": 40000000})");
  EXPECT_EQ(shell("cp '" + here_ + "' '" + (places_ / "copy") + "' && cmp '" + there_ + "' '" +
                  (places_ / "copy") + "'")
                .status,
            0);
  ASSERT_EQ(tool("evict '" + here_ + "'"), 0);
  EXPECT_EQ(shell("cat '" + here_ + "' | cmp - '" + there_ + "'").status, 0);

  // Who writes has the whole, whatever part it writes.
  ASSERT_EQ(tool("evict '" + here_ + "'"), 0);
  told(R"({"rate": 4000000})");
  const auto reader = opened(here_);
  EXPECT_EQ(part(reader, 0, 4096), "right");
  const auto writer = opened(here_, O_RDWR);
  EXPECT_EQ(part(writer, 0, 4096), "right");
  EXPECT_FALSE(isPlaceholder());
  ASSERT_EQ(::pwrite(writer.get(), "XY", 2, size / 2), 2);
  EXPECT_TRUE(whole() == versionOf(1).replace(size / 2, 2, "XY"));
}

TEST_P(FirstByte, WhatIsThereOutlivesItsProviderAndNoOtherVersionFollowsIt) {
  if (GetParam() != std::string("access")) GTEST_SKIP() << "a whole is a whole";
  auto file = opened(here_);
  EXPECT_EQ(part(file, 0, 3 * mebibyte), "right");
  const auto first = extensions();
  ASSERT_EQ(first.size(), 1U);
  ASSERT_EQ(::kill(first.front(), SIGKILL), 0);
  // What was on its way to it is not counted.
  ASSERT_TRUE(eventually([&] { return extensions() != first; }));
  told();
  // A read fails or is right, and the next attempt goes on where the last one was.
  for (std::size_t at = 0; at < size;) {
    const auto said = part(file, at, mebibyte);
    EXPECT_TRUE(said == "right" || said == std::strerror(EAGAIN)) << said;
    if (said == "right") at += mebibyte;
  }
#ifndef __SANITIZE_THREAD__
  // Slowed down so much, an attempt has published next to nothing when it ends.
  EXPECT_LT(told(), size - mebibyte) << "what was there is not brought in again";
#endif
  EXPECT_TRUE(whole() == versionOf(1));

  file.reset();
  ASSERT_EQ(tool("evict '" + here_ + "'"), 0);
  file = opened(here_);
  EXPECT_EQ(part(file, 0, mebibyte), "right");
  put(there_, 2);
  (void)tool("sync Work");
  // Who has begun with the one version never gets any of the other.
  for (std::size_t at = 0; at < size; at += mebibyte) {
    const auto said = part(file, at, mebibyte);
    EXPECT_TRUE(said == "right" || said == std::strerror(EAGAIN) || said == std::strerror(EIO))
        << at << ": " << said;
  }
  EXPECT_TRUE(eventually([&] { return whole() == versionOf(2); }));
}

}  // namespace
}  // namespace qx::test
