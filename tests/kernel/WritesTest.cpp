// What programs that know nothing of documents have written is told.

#include "tests/kernel/Fixture.h"

namespace {

using namespace qx::test;

class WritesTest : public KernelTest {
 protected:
  /// The writes told so far, once those of `last` and all expected ones have been. They are told on
  /// several threads, so that the later one may arrive first.
  std::vector<std::string> writesUpTo(const std::string& last,
                                      const std::vector<std::string>& expected = {}) {
    shell("echo last > " + last);
    EXPECT_TRUE(source_->writes.waitFor(last));
    for (const auto& path : expected) EXPECT_TRUE(source_->writes.waitFor(path));
    auto told = source_->writes.take();
    // The side file of `sed -i` may be seen before it is moved.
    std::erase_if(told,
                  [&](const auto& path) { return path == last || path.starts_with(item("sed")); });
    return told;
  }
  std::shared_ptr<TestSource> source_;
};

TEST_P(WritesTest, EachClosingOfAModifiedFileIsTold) {
  source_ = add();
  std::ofstream(item("edited")) << "one\ntwo\n";
  makePlaceholder(item("placeholder"), 1000);
  const std::vector<std::string> edited{item("edited")};

  EXPECT_EQ(shell("echo three >> " + item("edited")).status, 0);
  EXPECT_EQ(writesUpTo(item("x1"), edited), edited);
  EXPECT_EQ(shell("sed -i s/two/2/ " + item("edited")).status, 0);
  EXPECT_EQ(writesUpTo(item("x2"), edited), edited);
  EXPECT_EQ(run(reader("map-write", item("edited"))).line, "right");
  EXPECT_EQ(writesUpTo(item("x3"), edited), edited);
  EXPECT_EQ(readAll(item("edited")), "Xne\n2\nthree\n");
  // The one who modifies hands its open file down.
  EXPECT_EQ(shell("exec 3>> " + item("edited") + "; (echo four >&3); true").status, 0);
  EXPECT_EQ(writesUpTo(item("x4"), edited), edited);

  // Neither looks, nor a closing without a change, nor what the provider does.
  EXPECT_EQ(shell("cat " + item("edited") + " " + item("placeholder") + "; touch " +
                  item("edited") + "; exec 3>> " + item("edited"))
                .status,
            0);
  EXPECT_EQ(writesUpTo(item("x5")), std::vector<std::string>());
  std::ofstream(item("edited")) << "by the provider";
  EXPECT_EQ(writesUpTo(item("x6")), std::vector<std::string>());
  EXPECT_TRUE(source_->writers.all().front().starts_with("pid:"));
}

TEST_P(WritesTest, AWriterThatBelongsToABundleIsNamedByIt) {
  source_ = add();
  std::ofstream(item("edited")) << "one\n";
  const std::string path = item("edited");
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  // It stays until it was told of: nobody knows the bundle of a process that is gone.
  const pid_t writer = fork();
  if (writer == 0) {
    close(ends[1]);
    const int file = open(path.c_str(), O_WRONLY | O_APPEND);
    const bool isWritten = write(file, "two\n", 4) == 4 && close(file) == 0;
    char end;
    (void)!read(ends[0], &end, 1);
    _exit(isWritten ? 0 : 1);
  }
  close(ends[0]);
  EXPECT_TRUE(source_->writers.waitFor("com.example.tests"));
  close(ends[1]);
  int status = -1;
  EXPECT_EQ(waitpid(writer, &status, 0), writer);
  EXPECT_EQ(status, 0);
}

TEST_P(WritesTest, APlaceholderThatIsOverwrittenIsContent) {
  source_ = add();
  makePlaceholder(item("overwritten"), 1000);
  makePlaceholder(item("emptied"), 1000);
  makePlaceholder(item("appended"), 26);
  EXPECT_EQ(shell("echo mine > " + item("overwritten") + "; : > " + item("emptied") +
                  "; echo more >> " + item("appended"))
                .status,
            0);
  const std::vector<std::string> written{item("appended"), item("emptied"), item("overwritten")};
  auto told = writesUpTo(item("x"), written);
  std::sort(told.begin(), told.end());
  EXPECT_EQ(told, written);
  EXPECT_EQ(run({"cat", item("overwritten")}).line, "mine");
  EXPECT_EQ(run({"cat", item("emptied")}).line, "");
  EXPECT_EQ(readAll(item("appended")), contentOf("appended", 26) + "more\n");
  // Where only openings are told, who empties a file waits like all others.
  if (byAccess()) {
    EXPECT_EQ(source_->provides.all(), std::vector<std::string>{item("appended")});
  }
}

TEST_P(WritesTest, WhatIsEmptiedWhileItIsFilledBelongsToWhoEmptiedIt) {
  source_ = add();
  const std::string path = item("emptied");
  makePlaceholder(path, 1 << 20, Mark::named);
  Gate begun;
  Gate goesOn;
  source_->behave([&](const std::string& file, qx::Completion<qx::Error> completion) {
    begun.pass();
    goesOn.wait();
    fill(file);
    std::ofstream(file, std::ofstream::app) << "too late to be kept";
    completion(std::nullopt);
  });
  ChildProcess other(reader("read", path));
  begun.wait();
  ChildProcess writer({"/bin/sh", "-c", "echo mine > " + path});
  // Where only openings are told, it waits before it empties the file.
  EXPECT_TRUE(!byAccess() || eventually([&] { return fs::file_size(path) == 0; }));
  goesOn.pass();
  EXPECT_EQ(writer.wait(), 0);
  other.wait();
  EXPECT_EQ(readAll(path), "mine\n");
  EXPECT_TRUE(source_->writes.waitFor(path));

  // Its provider, whom nobody asked, is stopped.
  if (byAccess()) {
    makePlaceholder(path, 1 << 20, Mark::named);
    const auto stopped = std::make_shared<Gate>();  // which the provider may leave after the test
    source_->behave([stopped](const std::string&, auto completion) {
      stopped->wait();
      completion(std::nullopt);
    });
    const qx::FileDescriptor file(open(path.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(pwrite(file.get(), "early", 5, 0), 5);
    ChildProcess unasked({"/bin/sh", "-c", "echo mine > " + path});
    EXPECT_TRUE(
        eventually([&] { return pwrite(file.get(), "late", 4, 1 << 19) < 0 && errno == EAGAIN; }));
    stopped->pass();
    EXPECT_EQ(unasked.wait(), 0);
    EXPECT_TRUE(readAll(path) == "mine\n");
  }

  // Its provider has noticed it, and says so.
  makePlaceholder(path, 1 << 20, Mark::named);
  const qx::FileDescriptor file(open(path.c_str(), O_RDWR | O_CLOEXEC));
  const std::string emptied = "emptied " + qx::markWord(*qx::inodeNameOf(file.get()));
  EXPECT_EQ(pwrite(file.get(), "late", 4, 100), 4);
  EXPECT_EQ(fsetxattr(file.get(), "user.docsource.placeholder", emptied.data(), emptied.size(), 0),
            0);
  EXPECT_EQ(run({"cat", path}).line, "");
  EXPECT_TRUE(eventually([&] { return fs::file_size(path) == 0; }));
}

TEST_P(WritesTest, AFileWithHolesThatSomebodyMadeIsContent) {
  source_ = add();
  EXPECT_EQ(shell("truncate -s 1000 " + item("holes") + "; echo end >> " + item("holes") +
                  "; truncate -s 1M " + item("big") + "; cat " + item("big") + " > /dev/null")
                .status,
            0);
  EXPECT_EQ(readAll(item("holes")), std::string(1000, '\0') + "end\n");
  auto told = writesUpTo(item("x"), {item("holes"), item("big")});
  std::sort(told.begin(), told.end());
  EXPECT_EQ(std::unique(told.begin(), told.end()) - told.begin(), 2);
  EXPECT_EQ(source_->provides.all(), std::vector<std::string>());
  // The provider may make a placeholder of it all the same.
  makePlaceholder(item("big"), 5000);
  EXPECT_EQ(run(reader("read", item("big"))).line, "right");
}

TEST_P(WritesTest, WhatComesWithADirectoryIsTold) {
  source_ = add();
  const std::string tree = temporaryRoot() + "/tree";
  fs::create_directories(tree + "/a/b");
  std::ofstream(tree + "/a/b/file") << "text";
  EXPECT_EQ(run({"cp", "-r", tree, item("copied")}).status, 0);
  EXPECT_EQ(run({"mv", tree, item("moved")}).status, 0);
  EXPECT_TRUE(source_->writes.waitFor(item("copied/a/b/file")));
  EXPECT_TRUE(source_->writes.waitFor(item("moved/a/b/file")));
}

IN_BOTH_WAYS(WritesTest);

}  // namespace
