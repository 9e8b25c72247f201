// An account over a directory, as a person has it: real daemons, the account's own process, the
// tool and the programs of the system, in both ways of coordination.

#include "tests/endtoend/Broker.h"

namespace qx::test {
namespace {

namespace fs = std::filesystem;

const std::string identifier = "com.veltro.docsource.account.Work";

class Accounts : public Broker, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    fs::create_directory(home_);
    fs::create_directory(origin_);
    std::ofstream(origin_ + "/letter.txt") << letter_;
    fs::create_directory(origin_ + "/pictures");
    std::ofstream(origin_ + "/pictures/cat.jpg") << std::string(300'000, 'p');
    startPlatform();
    start();
  }
  void startPlatform() {
    Broker::startPlatform({{"DOCSOURCE_COORDINATION", GetParam()}});
    ASSERT_TRUE(eventually([&] { return fs::exists(installation_ / "run/coordination"); }));
    const auto mode = FileManager::readFile(installation_ / "run/coordination");
    if (mode && *mode != std::string(GetParam()) + "\n") {
      GTEST_SKIP() << "not " << GetParam() << " but " << *mode;
    }
  }
  bool isCooperative() const { return GetParam() == std::string("cooperative"); }

  void refuses(const std::string& command, const std::string& reason, int status = 1) const {
    const auto outcome = shell(command);
    EXPECT_EQ(outcome.status, status) << command;
    EXPECT_NE(outcome.text().find(reason), std::string::npos) << command << ": " << outcome.text();
  }
  std::string state(const std::string& name) const {
    const auto line = ask("docsource status --json '" + here(name) + "'");
    const std::string before = "\"state\": \"";
    const auto at = line.find(before);
    return at == std::string::npos
               ? line
               : line.substr(at + before.size(),
                             line.find('"', at + before.size()) - at - before.size());
  }

  std::string here(const std::string& name) const { return home_ + "/DocSource/Work/" + name; }
  std::string there(const std::string& name) const { return origin_ + "/" + name; }
  void add() const {
    ask("docsource add folder Work '" + origin_ + "'");
    ASSERT_TRUE(eventually([&] { return fs::exists(here("pictures/cat.jpg")); }));
  }

  const std::string letter_ = std::string(5'000, 'l') + "\n";
  const std::string origin_ = places_ / "origin";
};

INSTANTIATE_TEST_SUITE_P(, Accounts, testing::Values("access", "open", "cooperative"),
                         [](const auto& mode) { return std::string(mode.param); });

TEST_P(Accounts, DocumentsAreReadEditedAndCarriedBack) {
  add();
  EXPECT_EQ(state("letter.txt"), "placeholder");
  EXPECT_EQ(fs::file_size(here("letter.txt")), letter_.size());
  if (isCooperative()) {
    EXPECT_EQ(fs::status(here("letter.txt")).permissions(), fs::perms::none);
    EXPECT_EQ(ask("docsource read '" + here("letter.txt") + "'"), letter_);
    ask("docsource get '" + here("") + "'");
  }
  EXPECT_EQ(ask("cat '" + here("letter.txt") + "'"), letter_);
  EXPECT_EQ(ask("cmp '" + here("pictures/cat.jpg") + "' '" + there("pictures/cat.jpg") + "'"), "");

  // In place, by a new file, a copy with all its attributes, moved, made, removed.
  ask("cd '" + here("") +
      "' && echo edited > letter.txt && cp -a letter.txt copy.txt && "
      "echo more >> copy.txt && mv pictures images && mkdir notes && echo one > notes/one && "
      "echo saved > notes/.new && mv notes/.new notes/saved && ln -s letter.txt link");
  ask("docsource sync Work");
  EXPECT_EQ(ask("cd '" + origin_ + "' && cat letter.txt copy.txt notes/one notes/saved"),
            "edited\nedited\nmore\none\nsaved\n");
  EXPECT_TRUE(fs::exists(there("images/cat.jpg")));
  EXPECT_FALSE(fs::exists(there("pictures")));
  EXPECT_EQ(state("link"), "local");

  // The other side changes, too.
  ask("cd '" + origin_ + "' && echo theirs > theirs.txt && rm notes/one && echo new > letter.txt");
  EXPECT_TRUE(eventually([&] { return fs::exists(here("theirs.txt")); }));
  EXPECT_TRUE(eventually([&] { return !fs::exists(here("notes/one")); }));
  ask("docsource sync Work");
  EXPECT_EQ(ask("docsource read '" + here("letter.txt") + "'"), "new\n");

  ask("docsource evict '" + here("images") + "'");
  EXPECT_EQ(state("images/cat.jpg"), "placeholder");
  ask("docsource pin '" + here("images") + "'");
  EXPECT_TRUE(eventually([&] { return state("images/cat.jpg") == "present"; }));
  refuses("docsource evict '" + here("images") + "'", here("images"));
  ask("docsource unpin '" + here("images") + "' && docsource evict '" + here("images") + "'");
  EXPECT_NE(ask("docsource status -r '" + here("") + "'").find("cat.jpg"), std::string::npos);
  EXPECT_EQ(ask("docsource transfers --json"), "{\"transfers\": []}\n");
  EXPECT_EQ(ask("docsource conflicts --json"), "{\"conflicts\": []}\n");
  refuses("docsource cancel '" + here("letter.txt") + "'", "letter.txt");

  // What is only here is not deleted unasked.
  refuses("docsource remove Work", "link");
  fs::remove(here("link"));
  ask("docsource remove Work");
  EXPECT_FALSE(fs::exists(fs::symlink_status(home_ + "/DocSource/Work")));
  EXPECT_TRUE(fs::exists(there("images/cat.jpg")));
  EXPECT_TRUE(daemon_->logs("Extension " + identifier));
}

TEST_P(Accounts, WhatIsWrittenToDocumentsThatAreEmptiedFirstIsKept) {
  if (isCooperative()) return;  // They are there before they can be emptied.
  constexpr int count = 300;
  std::string expected;
  for (int number = 100; number < 100 + count; ++number) {
    std::ofstream(there(std::to_string(number))) << letter_;
    expected += "edited" + std::to_string(number) + "\n";
  }
  add();
  ASSERT_TRUE(eventually([&] { return fs::exists(here(std::to_string(99 + count))); }));
  // The account meanwhile brings in what comes next in the directory.
  ask("cd '" + here("") +
      "' && for first in 100 101 102; do (for i in $(seq $first 3 399); do"
      " echo edited$i > $i; done) & done; wait");
  const auto all = "' && cat $(seq 100 399)";
  EXPECT_EQ(ask("cd '" + here("") + all), expected);
  ask("docsource sync Work");
  EXPECT_EQ(ask("cd '" + origin_ + all), expected);
}

TEST_P(Accounts, NothingIsLostWhileEitherSideIsAway) {
  // Not there at the start: the set-up waits for nobody, and what was there stays a placeholder.
  add();
  const std::string away = places_ / "away";
  fs::rename(origin_, away);
  stop();
  start();
  EXPECT_TRUE(
      eventually([&] { return ask("docsource accounts").find("offline") != std::string::npos; }));
  EXPECT_EQ(fs::file_size(here("letter.txt")), letter_.size());
  const auto read = shell("docsource --timeout 10 read '" + here("letter.txt") + "'");
  EXPECT_NE(read.status, 0);
  EXPECT_EQ(read.output, "");
  ask("echo meanwhile > '" + here("meanwhile.txt") + "'");
  refuses("docsource sync Work", "1 to upload");
  refuses("docsource remove Work", "not been uploaded");
  // Another directory in its place is not it.
  fs::create_directory(origin_);
  refuses("docsource sync Work", "Work: ");
  EXPECT_TRUE(fs::exists(here("letter.txt")));
  EXPECT_EQ(std::distance(fs::directory_iterator(origin_), {}), 0);
  fs::remove(origin_);
  fs::rename(away, origin_);
  ask("docsource sync Work");
  EXPECT_EQ(contentOf(there("meanwhile.txt")), "meanwhile\n");

  // Changed while the daemons are down.
  ask("docsource get '" + here("letter.txt") + "'");
  stop();
  ask("echo down >> '" + here("letter.txt") + "'");
  start();
  EXPECT_TRUE(eventually([&] { return contentOf(there("letter.txt")) == letter_ + "down\n"; }));

  // Its process is killed: the next one goes on although nobody wants a document.
  for (const pid_t each : extensions()) ASSERT_EQ(kill(each, SIGKILL), 0);
  std::ofstream(there("later.txt")) << "later";
  EXPECT_TRUE(eventually([&] { return fs::exists(here("later.txt")); }));

  // Changed on both sides: both are there, and either can be taken.
  fs::rename(origin_, away);
  ask("echo ours >> '" + here("letter.txt") + "'; echo theirs >> '" + away + "/letter.txt'");
  fs::rename(away, origin_);
  shell("docsource sync Work");
  ASSERT_TRUE(eventually(
      [&] { return ask("docsource conflicts").find("conflicts --take") != std::string::npos; }));
  const auto listed = ask("docsource conflicts --json");
  EXPECT_NE(listed.find("letter (conflict "), std::string::npos) << listed;
  ask("docsource conflicts --take '" + here("") + "'letter\\ \\(conflict*");
  ask("docsource sync Work");
  EXPECT_EQ(contentOf(there("letter.txt")), letter_ + "down\nours\n");
}

TEST_P(Accounts, WhatCannotBeAddedIsSaid) {
  const auto add = [](const std::string& words) { return "docsource add folder " + words; };
  refuses(add("a/b /tmp"), "without slashes");
  refuses(add(".. /tmp"), "dot");
  refuses(add("Work '" + origin_ + "/none'"), "There is no directory");
  for (const auto& place : {installation_.root(), std::string("/")}) {
    refuses(add("Work '" + place + "'"), "lie in one another");
  }
  refuses(add("Work"), "DIRECTORY", 2);
  fs::create_directories(home_ + "/DocSource/Work");
  refuses(add("Work '" + origin_ + "'"), "there is something already");
  EXPECT_TRUE(fs::is_empty(installation_ / "Extensions"));
  fs::remove(home_ + "/DocSource/Work");
  ask(add("Work '" + origin_ + "'"));
  refuses(add("Work '" + origin_ + "'"), "already");
  refuses("docsource remove None", "There is no account");
  refuses("docsource sync None", "There is no account");
  for (const char* command : {"evict", "conflicts --take"}) {
    refuses(std::string("docsource ") + command + " ''", "does not exist");
  }
  ASSERT_TRUE(eventually([&] { return fs::exists(here("letter.txt")); }));
  stop();
  refuses("docsource sync Work", "is not running", 3);
  refuses("docsource remove Work", "is not running", 3);
  // By the marks alone.
  const auto outcome = shell("docsource status --json '" + here("letter.txt") + "'");
  EXPECT_EQ(outcome.status, 3);
  EXPECT_NE(outcome.output.find("\"state\": \"placeholder\""), std::string::npos);
  ask("docsource remove Work --discard");
  EXPECT_TRUE(fs::exists(there("letter.txt")));
}

}  // namespace
}  // namespace qx::test
