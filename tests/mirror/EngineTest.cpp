// What the engine does in single, chosen cases; the model has the others.

#include <gtest/gtest.h>

#include "tests/mirror/World.h"

namespace {

using namespace docsource;
using namespace docsource::test;

class EngineTest : public testing::Test {
 protected:
  EngineTest() {
    qx::Clock::setCurrent(clock_);
    coordinate(scratch_ / "", "access");
    fs::create_directories(there_);
    write(there_ + "/a.txt", "first");
    fs::create_directories(there_ + "/d/e");
    write(there_ + "/d/e/b.txt", "second");
    machine_ = std::make_unique<Machine>(scratch_ / "here", makeFolderRemote(there_));
    EXPECT_TRUE(machine_->start());
    settle();
  }
  void settle() { EXPECT_TRUE(machine_->settle(clock_)); }
  std::string here(const std::string& name) const { return machine_->storage + "/" + name; }
  std::string there(const std::string& name) const { return there_ + "/" + name; }
  std::string identifier(const std::string& name) {
    const auto identifier = machine_->engine().identifierForItem(here(name));
    return identifier ? *identifier : identifier.error().text();
  }

  qx::ManualClock& clock_ = *new qx::ManualClock;
  Scratch scratch_;
  const std::string there_ = scratch_ / "there";
  std::unique_ptr<Machine> machine_;
};

TEST_F(EngineTest, ShowsWhatTheRemoteHasAndBringsItIn) {
  EXPECT_TRUE(isPlaceholder(here("a.txt")));
  EXPECT_TRUE(isPlaceholder(here("d/e/b.txt")));
  EXPECT_EQ(fs::file_size(here("a.txt")), 5U);
  const auto provided = machine_->engine().provide(here("d"));
  ASSERT_TRUE(provided) << provided.error().text();
  EXPECT_EQ(read(here("d/e/b.txt")), "second");
  EXPECT_FALSE(isPlaceholder(here("d/e/b.txt")));
  EXPECT_TRUE(isPlaceholder(here("a.txt")));
}

TEST_F(EngineTest, CarriesWhatIsDoneHereAndThere) {
  ASSERT_TRUE(machine_->engine().provide(machine_->storage));
  write(here("a.txt"), "changed here");
  write(here("new.txt"), "new");
  fs::create_directories(here("x/y"));
  fs::rename(here("d/e/b.txt"), here("x/y/c.txt"));
  write(there("other.txt"), "from there");
  settle();
  EXPECT_EQ(read(there("a.txt")), "changed here");
  EXPECT_EQ(read(there("new.txt")), "new");
  EXPECT_EQ(read(there("x/y/c.txt")), "second");
  EXPECT_FALSE(fs::exists(there("d/e/b.txt")));
  EXPECT_TRUE(isPlaceholder(here("other.txt")));
  fs::remove(here("a.txt"));
  fs::rename(there("x"), there("z"));
  write(there("new.txt"), "newer");
  settle();
  EXPECT_FALSE(fs::exists(there("a.txt")));
  EXPECT_EQ(read(here("z/y/c.txt")), "second");
  ASSERT_TRUE(machine_->engine().provide(here("new.txt")));
  EXPECT_EQ(read(here("new.txt")), "newer");
}

}  // namespace
