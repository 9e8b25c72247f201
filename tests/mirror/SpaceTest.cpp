// What comes before it is asked for, and what makes room.

#include <gtest/gtest.h>

#include <ctime>

#include "tests/mirror/World.h"

namespace {

using namespace docsource;
using namespace docsource::test;

class SpaceTest : public testing::Test {
 protected:
  SpaceTest() {
    qx::Clock::setCurrent(clock_);
    clock_.advance(std::chrono::hours(1));
    coordinate("access");
    fs::create_directories(there_);
    machine_ = std::make_unique<Machine>(scratch_ / "m", makeFolderRemote(there_));
  }
  void begin() {
    ASSERT_TRUE(machine_->start());
    ASSERT_TRUE(machine_->settle(clock_));
  }
  std::string here(const std::string& path) { return machine_->storage + "/" + path; }
  /// As a program that opens it, waits, and reads it.
  void read(const std::string& path) {
    const auto provided = machine_->engine().provide(here(path));
    ASSERT_TRUE(provided) << path << ": " << provided.error().text();
    EXPECT_FALSE(docsource::test::read(here(path)).empty());
    // Times of files count in ticks.
    const auto tick = [] {
      timespec now{};
      ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
      return std::pair(now.tv_sec, now.tv_nsec);
    };
    for (const auto before = tick(); tick() == before;) {
    }
  }
  std::size_t present() {
    std::size_t count = 0;
    for (const auto& entry : fs::recursive_directory_iterator(machine_->storage)) {
      if (entry.is_regular_file() && !isPlaceholder(entry.path())) ++count;
    }
    return count;
  }

  const Scratch scratch_;
  const std::string there_ = scratch_ / "there";
  qx::ManualClock& clock_ = newClock();
  std::unique_ptr<Machine> machine_;
};

TEST_F(SpaceTest, TheNextDocumentsOfAWalkAreThereAlready) {
  constexpr int directories = 12;
  constexpr int documents = 5;
  for (int directory = 0; directory < directories; ++directory) {
    const auto path = there_ + "/top/d" + std::to_string(directory);
    fs::create_directories(path);
    for (int each = 0; each < documents; ++each) {
      write(path + "/f" + std::to_string(each), "some words");
    }
  }
  write(there_ + "/top/d0/large", std::string(1U << 20U, 'x'));
  write(there_ + "/elsewhere", "other words");
  begin();
  // One document, and a long while later another one: nobody goes through anything.
  read("top/d0/f0");
  clock_.advance(std::chrono::seconds(10));
  read("top/d1/f0");
  ASSERT_TRUE(machine_->settle(clock_));
  EXPECT_EQ(present(), 2U);
  // One after the other: the rest of the directory, then those beside it, and no large one.
  clock_.advance(std::chrono::seconds(10));
  read("top/d2/f0");
  read("top/d2/f1");
  ASSERT_TRUE(machine_->settle(clock_));
  EXPECT_EQ(present(), 7U) << "its directory, and nothing of another one";
  read("top/d3/f0");
  ASSERT_TRUE(machine_->settle(clock_));
  const auto after = present();
  EXPECT_GE(after, 30U);
  EXPECT_LE(after, 8U + 32U);
  // What it waits for now is few, and what is large or lies elsewhere was never brought.
  unsigned waits = 0;
  for (const auto& entry : fs::recursive_directory_iterator(here("top"))) {
    if (!entry.is_regular_file() || entry.path().filename() == "large") continue;
    if (isPlaceholder(entry.path())) {
      ++waits;
      read(entry.path().string().substr(here("").size()));
      machine_->engine().step();
    }
  }
  EXPECT_LE(waits, 3U);
  ASSERT_TRUE(machine_->settle(clock_));
  EXPECT_TRUE(isPlaceholder(here("top/d0/large")));
  EXPECT_TRUE(isPlaceholder(here("elsewhere")));
}

TEST_F(SpaceTest, WhatWasNotReadForLongestMakesRoom) {
  constexpr std::size_t size = 300U << 10U;
  for (const char* name : {"a", "b", "c", "pinned", "changed", "open"}) {
    write(there_ + "/" + name, std::string(size, 'x'));
  }
  machine_->options().keep = 4 * size + 1000;
  begin();
  for (const char* name : {"pinned", "changed", "open", "a", "b"}) read(name);
  ASSERT_TRUE(machine_->engine().pin(here("pinned"), true));
  {
    const qx::FileDescriptor open(::open(here("open").c_str(), O_RDONLY | O_CLOEXEC));
    write(here("changed"), "words that are nowhere else");
    // Not yet: they came a moment ago.
    machine_->engine().step();
    EXPECT_EQ(present(), 5U);
    clock_.advance(std::chrono::seconds(20));
    read("c");
    ASSERT_TRUE(machine_->settle(clock_));
    clock_.advance(std::chrono::seconds(20));
    ASSERT_TRUE(machine_->settle(clock_));
    // The first that may go was read before the others.
    EXPECT_TRUE(isPlaceholder(here("a")));
    for (const char* name : {"pinned", "changed", "open", "b", "c"}) {
      EXPECT_FALSE(isPlaceholder(here(name))) << name;
    }
  }
  EXPECT_EQ(docsource::test::read(there_ + "/changed"), "words that are nowhere else");
  read("a");
  clock_.advance(std::chrono::seconds(20));
  ASSERT_TRUE(machine_->settle(clock_));
  EXPECT_TRUE(isPlaceholder(here("open"))) << "nobody has it open any more";
  EXPECT_FALSE(isPlaceholder(here("a")));
  clock_.advance(std::chrono::seconds(20));
  ASSERT_TRUE(machine_->settle(clock_));
  EXPECT_GT(machine_->engine().idleFor(), 5000) << "nothing came, so nothing is counted";
}

}  // namespace
