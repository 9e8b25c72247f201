#include "platform/device/KeyState.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryRoot.h"

namespace {

class KeyStateTest : public testing::Test {
 protected:
  void SetUp() override {
    qx::test::temporaryRoot();
    std::filesystem::remove_all(qx::Places::keyState());
  }
  void write(const std::string& text) { std::ofstream(qx::Places::keyState()) << text; }
  qx::test::LogCapture log;
};

TEST_F(KeyStateTest, WhatCannotBeUnderstoodIsLocked) {
  std::size_t lines = 0;
  for (const char* text :
       {"", "\n", "lock-state=3", "lock-state= unlocked-since-boot=1",
        "lock-state=3 unlocked-since-boot=2", "lock-state=3 unlocked-since-boot=11",
        "lock-state=3x unlocked-since-boot=1", "lock-state=99999999999 unlocked-since-boot=1",
        "lock-state=3 unlocked-since-boot=1\nmore", " lock-state=3 unlocked-since-boot=1",
        "lock-state=3  unlocked-since-boot=1", "unlocked-since-boot=1 lock-state=3"}) {
    write(text);
    auto state = qx::readKeyState();
    EXPECT_EQ(state.lockState, 0) << text;
    EXPECT_FALSE(state.unlockedSinceBoot) << text;
    EXPECT_EQ(qx::test::LogCapture::count("key state"), ++lines) << text;
  }
  std::filesystem::remove(qx::Places::keyState());
  std::filesystem::create_directory(qx::Places::keyState());
  EXPECT_EQ(DeviceUnlockedSinceBoot(), 0);
}

}  // namespace
