#include "platform/notify/SystemNotifyCenter.h"

#include <gtest/gtest.h>

#include <fstream>
#include <future>

#include "tests/support/ChildProcess.h"
#include "tests/support/Mailbox.h"
#include "tests/support/TemporaryRoot.h"

namespace {

namespace fs = std::filesystem;
namespace SystemNotifyCenter = qx::SystemNotifyCenter;
using qx::test::ChildProcess;
using qx::test::Mailbox;

class SystemNotifyCenterTest : public testing::Test {
 protected:
  void SetUp() override { qx::test::temporaryRoot(); }

  /// Observers are never removed, so what they write to is not either.
  Mailbox<std::string>& observe(const std::string& name) {
    auto& calls = *new Mailbox<std::string>;
    SystemNotifyCenter::addObserver(name, [&calls, name] { calls.put(name); });
    return calls;
  }
};

TEST_F(SystemNotifyCenterTest, EveryPostingReachesTheObserversOfItsName) {
  // The directory may come later.
  fs::remove_all(qx::Places::notifications());
  auto& first = observe("com.example.one");
  auto& second = observe("com.example.one");
  auto& other = observe("com.example.two");
  for (std::size_t posting = 1; posting <= 3; ++posting) {
    EXPECT_FALSE(SystemNotifyCenter::post("com.example.one"));
    EXPECT_TRUE(first.waitForCount(posting));
    EXPECT_TRUE(second.waitForCount(posting));
  }

  // Any program posts with nothing but a write.
  auto file = qx::Places::notifications() + "/com.example.one";
  EXPECT_EQ(ChildProcess({"/bin/sh", "-c", "echo > '" + file + "'"}).wait(), 0);
  EXPECT_TRUE(first.waitForCount(4));

  // A file that goes says nothing, as what is posted before and after it shows. (The first posting
  // of all may be told twice: the directory comes with it.)
  EXPECT_FALSE(SystemNotifyCenter::post("com.example.two"));
  EXPECT_TRUE(other.waitForCount(1));
  const auto told = first.all().size();
  EXPECT_LE(told, 5U);
  fs::remove(file);
  EXPECT_FALSE(SystemNotifyCenter::post("com.example.two"));
  EXPECT_TRUE(other.waitForCount(2));
  EXPECT_EQ(first.all().size(), told);
  EXPECT_EQ(other.all().size(), 2U);

  for (const char* name : {"", "../key-state", ".", "..", "a/b"}) {
    EXPECT_TRUE(SystemNotifyCenter::post(name)) << name;
  }
}

TEST_F(SystemNotifyCenterTest, APostingIsToldOnceHoweverItsFileIsMade) {
  fs::create_directories(qx::Places::notifications());
  const auto file = qx::Places::notifications() + "/com.example.one";
  const auto spare = qx::Places::root() + "/spare";
  auto& told = observe("com.example.one");
  auto& after = observe("com.example.two");
  std::ofstream(spare) << "text";
  for (int round = 0; round < 50; ++round) {
    // Made with content, then deleted and linked anew; and another posting, behind which nothing of
    // these can come any more.
    std::ofstream(file) << "text";
    EXPECT_TRUE(told.waitForCount(2 * round + 1));
    fs::remove(file);
    fs::create_hard_link(spare, file);
    EXPECT_FALSE(SystemNotifyCenter::post("com.example.two"));
    EXPECT_TRUE(after.waitForCount(round + 1));
    EXPECT_TRUE(told.waitForCount(2 * round + 2));
    EXPECT_EQ(told.all().size(), 2U * round + 2);
    fs::remove(file);
  }
}

TEST_F(SystemNotifyCenterTest, ASlowObserverHoldsUpNobodyElse) {
  std::promise<void> release;
  auto& isIn = *new Mailbox<int>;
  auto& inside = *new std::atomic<int>(0);
  auto released = release.get_future().share();
  SystemNotifyCenter::addObserver("com.example.slow", [&isIn, &inside, released] {
    isIn.put(++inside);
    released.wait();
    --inside;
  });
  auto& quick = observe("com.example.slow");
  for (std::size_t posting = 1; posting <= 3; ++posting) {
    EXPECT_FALSE(SystemNotifyCenter::post("com.example.slow"));
    EXPECT_TRUE(quick.waitForCount(posting));
  }
  release.set_value();
  EXPECT_TRUE(isIn.waitForCount(3));
  EXPECT_EQ(isIn.all(), (std::vector<int>{1, 1, 1})) << "one call at a time";
}

}  // namespace
