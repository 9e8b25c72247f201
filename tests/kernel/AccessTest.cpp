// Programs that know nothing of documents get at placeholders.

#include "platform/conduit/ServiceSocket.h"
#include "tests/kernel/Fixture.h"
#include "tests/support/Wire.h"

namespace {

using namespace qx::test;
using qx::Array;
using qx::Error;
using qx::FileDescriptor;
using qx::URL;
using qx::Value;

TEST_P(KernelTest, EveryWayToTheContentBringsItIn) {
  const auto source = add();
  const auto placeholder = [&](const std::string& name) {
    makePlaceholder(item(name), 100000);
    // A new placeholder has its first block a moment later; programs that skip holes need it.
    EXPECT_TRUE(eventually([&] {
      const FileDescriptor file(open(item(name).c_str(), O_RDONLY | O_CLOEXEC));
      return lseek(file.get(), 0, SEEK_DATA) == 0;
    }));
    return item(name);
  };
  EXPECT_EQ(run(reader("read", placeholder("read"))).line, "right");
  EXPECT_EQ(run(reader("mmap", placeholder("mmap"))).line, "right");

  const std::string copied = temporaryRoot() + "/copied";
  EXPECT_EQ(run({"cp", placeholder("cp"), copied}).status, 0);
  EXPECT_TRUE(readAll(copied) == contentOf("cp", 100000));
  const std::string archived = placeholder("tar");
  EXPECT_EQ(shell("cd " + items() + " && tar cf - tar | tar xOf - > " + copied).status, 0);
  EXPECT_TRUE(readAll(copied) == contentOf("tar", 100000));

  EXPECT_EQ(run({"truncate", "-s", "10", placeholder("truncate")}).status, 0);
  EXPECT_EQ(readAll(item("truncate")), contentOf("truncate", 100000).substr(0, 10));
  EXPECT_EQ(shell("printf XY | dd conv=notrunc bs=2 of=" + placeholder("write")).status, 0);
  EXPECT_TRUE(readAll(item("write")) == "XY" + contentOf("write", 100000).substr(2));

  source->behave([](const std::string& path, qx::Completion<Error> completion) {
    std::ofstream(path) << "#!/bin/sh\necho executed\n";
    removexattr(path.c_str(), "user.docsource.placeholder");
    completion(std::nullopt);
  });
  chmod(placeholder("execve").c_str(), 0755);
  EXPECT_EQ(run({item("execve")}).line, "executed");

  // A program without a bundle is known by its number.
  const auto readers = source->readers.all();
  ASSERT_EQ(readers.size(), 7u);
  EXPECT_EQ(readers[0], "com.example.tests");
  EXPECT_TRUE(readers[2].starts_with("pid:")) << readers[2];
}

TEST_P(KernelTest, ListingsDownloadNothing) {
  const auto source = add();
  fs::create_directories(item("below"));
  makePlaceholder(item("below/a"), 5000);
  makePlaceholder(item("b"), 5000, Mark::named);
  const std::string opening = byAccess() ? " && exec 3< " + item("b") : "";
  EXPECT_EQ(shell("ls -lR " + items() + " && stat " + item("b") + " && find " + items() +
                  " -type f -size +1k && du -a " + items() + opening)
                .status,
            0);
  EXPECT_TRUE(source->provides.all().empty());
  EXPECT_EQ(run(reader("read", item("b"))).line, "right");
  EXPECT_EQ(source->provides.all(), std::vector<std::string>{item("b")});
}

TEST_P(KernelTest, ACopyThatSkipsHolesFindsNone) {
  for (const std::size_t size : {600, 4096, 5000, 1 << 20}) {
    makePlaceholder(item("plain" + std::to_string(size)), size, Mark::plain);
    makePlaceholder(item("named" + std::to_string(size)), size, Mark::named);
  }
  const auto source = add();
  for (const auto& entry : fs::directory_iterator(items())) {
    const std::string copied = temporaryRoot() + "/" + entry.path().filename().string();
    EXPECT_EQ(run({"cp", entry.path(), copied}).status, 0);
    EXPECT_TRUE(readAll(copied) == contentOf(entry.path().filename(), entry.file_size()))
        << entry.path();
  }
  EXPECT_EQ(source->provides.all().size(), 8u);
}

TEST_P(KernelTest, OneProvideForAllReadersAndNothingForWarmOnes) {
  const auto source = add();
  makePlaceholder(item("wanted"), 300000);
  fs::create_directories(item("also"));
  fs::create_hard_link(item("wanted"), item("also/wanted"));
  Gate all;
  qx::Completion<Error> waiting;
  source->behave([&](const std::string& path, qx::Completion<Error> completion) {
    waiting = [path, completion](const std::optional<Error>& error) {
      fill(path);
      completion(error);
    };
    all.pass();
  });
  std::vector<std::unique_ptr<ChildProcess>> readers;
  for (int i = 0; i < 16; ++i) {
    readers.push_back(std::make_unique<ChildProcess>(reader("mmap", item("wanted"))));
  }
  ChildProcess killed(reader("read", item("wanted")));
  all.wait();
  killed.end();  // returns, although what it waits for does not come
  // A file that is there is not held up meanwhile.
  std::ofstream(item("other")) << contentOf("other", 100);
  EXPECT_EQ(run(reader("read", item("other"))).line, "right");
  waiting(std::nullopt);
  for (auto& each : readers) EXPECT_EQ(each->readLine(), "right");
  EXPECT_EQ(source->provides.all().size(), 1u);

  // Present now: nobody is asked, not even the worker.
  kill(worker(), SIGSTOP);
  const auto warm = run(reader("read", item("wanted")));
  kill(worker(), SIGCONT);
  EXPECT_EQ(warm.line, "right");
  // Made a placeholder again, it is provided again.
  makePlaceholder(item("wanted"), 300000);
  source->behave(nullptr);
  EXPECT_EQ(run(reader("read", item("wanted"))).line, "right");
  EXPECT_EQ(source->provides.all().size(), 2u);
}

TEST_P(KernelTest, NoNameAndNoMountLeadsAroundTheWatch) {
  const std::string outside = temporaryRoot() + "/outside";
  fs::create_directories(outside + "/mount");
  makePlaceholder(item("hard"), 3000);
  fs::create_hard_link(item("hard"), outside + "/hard");
  const auto source = add();
  makePlaceholder(item("bound"), 3000);
  makePlaceholder(item("soft"), 3000);
  fs::create_symlink(item("soft"), outside + "/soft");
  EXPECT_EQ(run(reader("read", outside + "/hard")).line, "right");
  EXPECT_EQ(run(reader("read", outside + "/soft")).line, "right");
  const auto mounted = run({"unshare", "-m", "/bin/sh", "-c",
                            "mount --bind -r " + items() + " " + outside + "/mount && umount -l " +
                                "/dev/shm; exec \"$0\" read \"$1\"",
                            fs::read_symlink("/proc/self/exe").string(), outside + "/mount/bound"});
  EXPECT_EQ(mounted.line, "right");
  auto provided = source->provides.all();
  std::sort(provided.begin(), provided.end());
  EXPECT_EQ(provided, (std::vector<std::string>{item("bound"), item("hard"), item("soft")}));
}

TEST_P(KernelTest, FailuresComeAsTheErrnoThatFits) {
  const auto source = add();
  const auto errorOf = [&](const std::string& name, std::optional<Error> error) {
    source->behave([error](const std::string&, qx::Completion<Error> done) { done(error); });
    makePlaceholder(item(name), 4000);
    return run(reader("read", item(name))).line;
  };
  const auto wrapped = [](int errnum) {
    return DSPluginOperationFailedError(qx::fileError(errnum, std::nullopt));
  };
  EXPECT_EQ(errorOf("full", wrapped(ENOSPC)), "No space left on device");
  EXPECT_EQ(errorOf("forbidden", wrapped(EACCES)), "Operation not permitted");
  EXPECT_EQ(errorOf("again", wrapped(EHOSTUNREACH)), "Resource temporarily unavailable");
  EXPECT_EQ(errorOf("died", DSPluginOperationFailedError(
                                qx::conduitError(qx::ConduitErrorCode::connectionLost, "gone"))),
            "Resource temporarily unavailable");
  EXPECT_EQ(errorOf("unpermitted", DSNotPermittedError()), "Operation not permitted");
  EXPECT_EQ(errorOf("odd", Error("Odd", 1, "odd")), "Input/output error");
  // It says that the file is there, and has written nothing; also where the first block, which it
  // did not make, leaves no hole.
  EXPECT_EQ(errorOf("liar", std::nullopt), "Input/output error");
  makePlaceholder(item("small"), 600);
  ASSERT_TRUE(eventually([&] {
    return getxattr(item("small").c_str(), "trusted.docsource.placeholder", nullptr, 0) > 0;
  }));
  EXPECT_EQ(run(reader("read", item("small"))).line, "Input/output error");
  // The next reader has the provider try again.
  source->behave(nullptr);
  EXPECT_EQ(run(reader("read", item("full"))).line, "right");
}

TEST_P(KernelTest, AHalfFilledFileStaysUnread) {
  const auto source = add();
  for (const auto kind : {Mark::named, Mark::plain}) {
    const std::string path = item(kind == Mark::named ? "named" : "plain");
    makePlaceholder(path, 1 << 20, kind);
    source->behave([](const std::string& half, qx::Completion<Error> completion) {
      const qx::FileDescriptor file(open(half.c_str(), O_WRONLY | O_CLOEXEC));
      // All of its room, and little of its content.
      EXPECT_EQ(fallocate(file.get(), 0, 0, 1 << 20), 0);
      EXPECT_EQ(pwrite(file.get(), "half", 4, 0), 4);
      completion(Error("Provider", 1, "It fell."));
    });
    EXPECT_EQ(run(reader("read", path)).line, "Input/output error");
    source->behave(nullptr);
    EXPECT_EQ(run(reader("read", path)).line, "right");
  }
}

TEST_P(KernelTest, AHangingProviderHoldsNobodyElseUp) {
  fs::create_directories(temporaryRoot() + "/Others");
  const auto hanging = add("com.example.hanging");
  const auto other = add("com.example.other", temporaryRoot() + "/Others");
  hanging->behave([](const std::string&, const qx::Completion<Error>&) {});
  std::vector<std::unique_ptr<ChildProcess>> stuck;
  for (int i = 0; i < 20; ++i) {
    makePlaceholder(item("stuck" + std::to_string(i)), 1000);
    stuck.push_back(
        std::make_unique<ChildProcess>(reader("read", item("stuck" + std::to_string(i)))));
  }
  ASSERT_TRUE(hanging->provides.waitForCount(20));
  makePlaceholder(temporaryRoot() + "/Others/quick", 1000);
  EXPECT_EQ(run(reader("read", temporaryRoot() + "/Others/quick")).line, "right");

  // Removed while they wait: they wait for the next.
  makePlaceholder(item("late"), 1000);
  QXFileCoordinator::_removeDocSource(hanging);
  ASSERT_TRUE(platformd_->logs("Doc source com.example.hanging was removed"));
  stuck.push_back(std::make_unique<ChildProcess>(reader("read", item("late"))));
  add("com.example.hanging");
  for (auto& each : stuck) EXPECT_EQ(each->readLine(), "right");
}

TEST_P(KernelTest, TheProvidersOwnProcessesAreLetThrough) {
  const auto source = add();
  makePlaceholder(item("own"), 8);
  // The daemon is this process; its extension is an interpreter, with a helper.
  EXPECT_EQ(readAll(item("own")), std::string(8, '\0'));
  const std::string script = temporaryRoot() + "/count.sh";
  std::ofstream(script) << "tr -d '\\000' < " << item("own") << " | wc -c\n";
  const std::string extension = "env QX_EXTENSION_IDENTIFIER=com.example.source ";
  EXPECT_EQ(shell(extension + "sh " + script).line, "0");
  EXPECT_EQ(shell(extension + "setsid -w sh -c 'env -i sh " + script + "; true'").line, "0");
  // Its parent has ended when it reads.
  ASSERT_EQ(mkfifo((temporaryRoot() + "/go").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo((temporaryRoot() + "/counted").c_str(), 0600), 0);
  ChildProcess leader({"setsid", "env", "QX_EXTENSION_IDENTIFIER=com.example.source", "sh", "-c",
                       "cd " + temporaryRoot() +
                           "; sh -c '(read go < go; sh count.sh > counted) & exit'"
                           "; echo ready; read end"});
  ASSERT_EQ(leader.readLine(), "ready");
  std::ofstream(temporaryRoot() + "/go") << "\n";
  EXPECT_EQ(readAll(temporaryRoot() + "/counted"), "0\n");
  // In a namespace of its own it is still the same program.
  const auto inNamespace = [&](const std::string& command) {
    return shell(extension + "sh -c 'unshare --user " + command + "; true'").line;
  };
  EXPECT_EQ(inNamespace("sh -c \"read text < " + item("own") + " || echo read\""), "read");
  EXPECT_TRUE(source->provides.all().empty());
  // Another program there is a stranger, and so is another extension.
  makePlaceholder(item("boxed"), 8);
  EXPECT_EQ(inNamespace("cat " + item("boxed")), contentOf("boxed", 8));
  EXPECT_EQ(shell("env QX_EXTENSION_IDENTIFIER=com.example.other sh " + script).line, "8");
  EXPECT_EQ(source->provides.all().size(), 2u);
}

/// A provider that speaks for itself.
class WireHost : public Wire {
 public:
  WireHost() : Wire(serviceSocket()) {}

  std::int64_t beginToAdd(const std::string& identifier, const std::string& directory = items()) {
    return begin("addDocSource:providedItemsURL:completion:",
                 {identifier, URL::fileURL(directory, true)});
  }
  std::string add(const std::string& identifier, const std::string& directory = items()) {
    return answer(beginToAdd(identifier, directory)).outcome();
  }
  /// Fills what it is asked for next.
  void provideNext() {
    auto asked = receive();
    while (asked && asked->size() != 4) asked = receive();
    if (!asked) {
      close();  // lest the reader wait for it
      FAIL() << "nobody asks";
    }
    fill(*asked->back().as<Array>()->at(1).as<URL>()->path());
    send({2, (*asked)[1], Array{Value()}});
  }

  static std::string items() { return temporaryRoot() + "/Items"; }

 private:
  static FileDescriptor serviceSocket() {
    FileDescriptor socket;
    // platformd says what it does a moment before it listens.
    EXPECT_TRUE(eventually([&] {
      auto connected = qx::connectToServiceSocket(fileCoordinationServiceName);
      if (connected) socket = std::move(*connected);
      return connected.ok();
    }));
    return socket;
  }
};

/// As many directories, with a placeholder in each.
std::string document(int i) { return WireHost::items() + "/" + std::to_string(i) + "/document"; }
void makeDocuments(int count) {
  for (int i = 0; i < count; ++i) {
    fs::create_directories(fs::path(document(i)).parent_path());
    makePlaceholder(document(i), 5000);
  }
}

TEST_P(KernelTest, ADocSourceIsAddedWhenItsWholeTreeIsWatched) {
  constexpr int count = 1500;
  makeDocuments(count);
  std::optional<WireHost> host(std::in_place);
  ASSERT_EQ(host->add("com.example.source"), "success");
  for (const int i : {0, count / 2, count - 1}) {
    ChildProcess reading(reader("read", document(i)));
    host->provideNext();
    EXPECT_EQ(reading.readLine(), "right");
  }
  // Nothing there yet to watch, and nothing that could ever be.
  EXPECT_EQ(host->add("com.example.later", temporaryRoot() + "/Later"), "success");
  EXPECT_EQ(host->add("com.example.never", document(0)), "success");

  // The marks outlive the worker.
  kill(worker(), SIGKILL);
  ChildProcess waiting(reader("read", document(1)));
  host.reset();
  ASSERT_TRUE(platformd_->logs("[ERROR] Worker "));
  host.emplace();
  host->beginToAdd("com.example.source");
  host->provideNext();
  EXPECT_EQ(waiting.readLine(), "right");
}

TEST_P(KernelTest, ATreeIsWatchedAlthoughWhoAddedItGoes) {
  constexpr int count = 300;
  makeDocuments(count);
  // Removed by the one who has just added it: both are answered.
  WireHost fickle;
  const auto adding = fickle.beginToAdd("com.example.source");
  const auto removing = fickle.begin("removeDocSource:completion:", {"com.example.source"});
  EXPECT_EQ(fickle.answer(adding).outcome(), "success");
  EXPECT_EQ(fickle.answer(removing).outcome(), "success");
  ChildProcess patient(reader("read", document(count - 1)));
  // Lost before it was answered: who reads waits for the next.
  std::optional<WireHost> lost(std::in_place);
  lost->beginToAdd("com.example.source");
  ASSERT_TRUE(platformd_->logs("for doc source com.example.source.", 2));
  lost.reset();
  ASSERT_TRUE(platformd_->logs("Doc source com.example.source is gone"));
  ChildProcess waiting(reader("read", document(0)));
  WireHost next;
  next.beginToAdd("com.example.source");
  next.provideNext();
  next.provideNext();
  EXPECT_EQ(waiting.readLine(), "right");
  EXPECT_EQ(patient.readLine(), "right");
  // Lost while it provides.
  ChildProcess asking(reader("read", document(1)));
  while (const auto message = next.receive()) {
    if (message->size() == 4) break;
  }
  next.close();
  WireHost last;
  last.beginToAdd("com.example.source");
  last.provideNext();
  EXPECT_EQ(asking.readLine(), "right");
}

TEST_P(KernelTest, DirectoriesThatComeLaterAreWatched) {
  const auto late = add("com.example.late", temporaryRoot() + "/Late/Storage");
  fs::create_directories(temporaryRoot() + "/Late/Storage/below");
  ASSERT_TRUE(platformd_->logs("in " + temporaryRoot() + "/Late/Storage, which has changed"));
  makePlaceholder(temporaryRoot() + "/Late/Storage/below/first", 1000);
  EXPECT_EQ(run(reader("read", temporaryRoot() + "/Late/Storage/below/first")).line, "right");

  const auto source = add();
  fs::create_directories(item("a/b/c"));
  fs::create_directories(temporaryRoot() + "/made/elsewhere");
  makePlaceholder(temporaryRoot() + "/made/elsewhere/moved", 1000);
  fs::rename(temporaryRoot() + "/made", item("made"));
  // A write that is told proves that the directory is marked by now.
  for (const std::string directory : {"a/b/c", "made/elsewhere"}) {
    ASSERT_TRUE(eventually([&] {
      shell("echo x > " + item(directory + "/probe"));
      const auto told = source->writes.all();
      return std::find(told.begin(), told.end(), item(directory + "/probe")) != told.end();
    })) << directory;
  }
  makePlaceholder(item("a/b/c/deep"), 1000);
  EXPECT_EQ(run(reader("read", item("a/b/c/deep"))).line, "right");
  EXPECT_EQ(run(reader("read", item("made/elsewhere/moved"))).line, "right");
}

IN_BOTH_WAYS(KernelTest);

}  // namespace
