// What a file holds after the machine stopped while it was being replaced: a file system of its
// own, ended as a power failure ends it (ext4's shutdown without writing its log), and mounted
// anew.

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "tests/support/Disk.h"

namespace {

using namespace qx;
using namespace qx::test;

std::string contentOf(int number) {
  std::string content = std::to_string(number) + "\n";
  content.append(static_cast<std::size_t>(number % 7) * 50'000 + 10,
                 static_cast<char>('a' + number % 26));
  return content;
}

TEST(PowerFailureTest, LosesNothingThatWasReplaced) {
  Disk disk;
  if (const auto why = disk.make(); !why.empty()) GTEST_SKIP() << why;
  const std::string path = disk.path() + "/list";
  std::minstd_rand random(std::random_device{}());
  int number = 0;
  ASSERT_FALSE(FileManager::replaceFile(path, contentOf(number)));
  for (int round = 0; round < 20; ++round) {
    std::atomic<int> kept = number;
    std::atomic<int> begun = number;
    std::thread writer([&] {
      while (!FileManager::replaceFile(path, contentOf(++begun))) kept = begun.load();
    });
    // At some moment of some replacement.
    const int last = number + 2 + static_cast<int>(random() % 5);
    while (begun < last) std::this_thread::yield();
    const auto moment =
        std::chrono::steady_clock::now() + std::chrono::microseconds(random() % 4000);
    while (begun == last && std::chrono::steady_clock::now() < moment) std::this_thread::yield();
    disk.fail();
    writer.join();
    disk.unmount();
    ASSERT_TRUE(disk.mount());

    const auto found = FileManager::readFile(path);
    ASSERT_TRUE(found) << found.error().text();
    number = std::atoi(found->c_str());
    EXPECT_EQ(*found, contentOf(number)) << "of " << found->size() << " bytes";
    EXPECT_GE(number, kept);
    EXPECT_LE(number, begun);
    number = begun;
  }
}

}  // namespace
