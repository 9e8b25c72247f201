// Programs that know nothing of this system, in sandboxes, on documents under their own paths: real
// programs, a real provider, placeholders where content can be brought in on demand; what comes and
// goes while they run; and programs that mean ill.

#include <sys/xattr.h>

#include <regex>

#include "tests/endtoend/Broker.h"
#include "tests/support/CountedCalls.h"

namespace qx::test {
namespace {

namespace fs = std::filesystem;

const char* const app = "com.example.unknowing";
/// No file system takes a longer name, not even one of a hidden sibling.
const std::string longest = std::string(NAME_MAX - 5, 'l') + ".txt";

std::string inQuotes(const std::string& word) { return "'" + word + "'"; }

class ShownDocuments : public Broker {
 protected:
  void SetUp() override {
    if (!canSandbox()) GTEST_SKIP() << "no bubblewrap, or no user namespaces";
    fs::create_directories(origin_ + "/folder");
    for (const auto& name :
         {std::string("letter"), std::string("diary"), std::string("folder/plan"), longest}) {
      writeOrigin(name, text(name));
    }
    if (!isAccount()) storage_ = installation_.installExampleProvider(origin_);
    startPlatform(environment_);
    // First, or the provider hides its placeholders, because nobody would keep readers waiting.
    start(environment_);
    if (isAccount()) {
      provider_ = "com.veltro.docsource.account.Work";
      fs::create_directory(home_);
      ask("docsource add folder Work '" + origin_ + "'");
      storage_ = fs::canonical(home_ + "/DocSource/Work");
    }
    ASSERT_TRUE(daemon_->logs("[INFO] Registered doc source extension " + provider_));
    installSandboxed(app);
  }
  /// Whether the provider is an account over the directory of the origin, whose documents keep
  /// their identifiers when they are renamed, and not the one of the examples.
  virtual bool isAccount() const { return false; }

  static std::string text(const std::string& name) {
    return "content of " + name + std::string(6000, '.') + "\n";
  }
  void writeOrigin(const std::string& name, const std::string& text) const {
    std::ofstream(origin_ + "/" + name) << text;
  }
  std::string path(const std::string& name) const { return storage_ + "/" + name; }
  bool originBecomes(const std::string& name, const std::string& text) const {
    return eventually([&] { return contentOf(origin_ + "/" + name) == text; });
  }

  static int outside(const std::string& line) { return ChildProcess({"sh", "-c", line}).wait(); }
  std::vector<std::string> tool(const std::vector<std::string>& words) const {
    std::vector<std::string> all{"env", "DOCSOURCE_ROOT=" + installation_.root(),
                                 builtProgram("docsource")};
    all.insert(all.end(), words.begin(), words.end());
    return all;
  }
  int runTool(const std::vector<std::string>& words) const {
    return ChildProcess(tool(words)).wait();
  }
  int grant(const std::string& name, const std::string& consumer = app) const {
    return runTool({"extend-bookmark", path(name), "--consumer", consumer});
  }
  int revoke(const std::string& name, const std::string& consumer = app) const {
    return runTool({"revoke", path(name), "--provider", provider_, "--consumer", consumer});
  }

  /// What a shell in the sandbox makes of a line: its status and output.
  static std::string shell(ChildProcess& sandbox, const std::string& line) {
    return sandbox.ask("run\t" + line);
  }
  static bool shellEventually(ChildProcess& sandbox, const std::string& line,
                              const std::string& expected) {
    return eventually([&] { return shell(sandbox, line) == expected; });
  }
  std::string listing(ChildProcess& sandbox, const std::string& folder = "") const {
    return sandbox.ask("list\t" + (folder.empty() ? storage_ : path(folder)));
  }
  std::string outsideListing() const {
    std::string all;
    for (const auto& entry : fs::directory_iterator(storage_)) {
      all += entry.path().filename().string() + " ";
    }
    return all;
  }
  bool isPlaceholder(const std::string& name) const {
    return ::getxattr(path(name).c_str(), "user.docsource.placeholder", nullptr, 0) > 0;
  }

  std::map<std::string, std::string> environment_;
  const std::string origin_ = places_ / "Origin";
  std::string provider_ = "com.example.provider";
  std::string storage_;
};

TEST_F(ShownDocuments, AreReadWrittenAndSavedByProgramsThatKnowNothing) {
  // By a relative path through a link, as people name documents.
  const TemporaryDirectory elsewhere;
  const std::string link = elsewhere / "Documents";
  fs::create_directory_symlink(storage_, link);
  ASSERT_TRUE(eventually([&] { return isPlaceholder("letter"); }));
  ASSERT_EQ(runTool({"run", app, "--document", origin_ + "/letter"}), 1)
      << "it belongs to no provider";
  ChildProcess sandbox({"sh", "-c", "cd " + inQuotes(link) + " && exec " + [&] {
                          std::string line;
                          for (const auto& word :
                               tool({"run", app, "--document", "letter", link + "/folder/plan",
                                     "--", "letter", "-n", "other"})) {
                            line += inQuotes(word) + " ";
                          }
                          return line;
                        }()});
  EXPECT_EQ(sandbox.ask("arguments"), path("letter") + " -n other");
  EXPECT_EQ(listing(sandbox), "folder letter") << "and no sibling of theirs";
  EXPECT_EQ(listing(sandbox, "folder"), "plan");
  EXPECT_EQ(shell(sandbox, "cat " + inQuotes(path("diary"))).substr(0, 2), "1 ");

  // Read on demand, under both names.
  const auto head = "head -c 17 " + inQuotes(path("letter"));
  EXPECT_EQ(shell(sandbox, head), "0 content of letter");
  EXPECT_EQ(shell(sandbox, "head -c 10 " + inQuotes(link + "/folder/plan")), "0 content of");
  EXPECT_FALSE(isPlaceholder("letter"));

  // In place.
  EXPECT_EQ(
      shell(sandbox, "printf CONTENT | dd conv=notrunc status=none of=" + inQuotes(path("letter"))),
      "0 ");
  auto expected = "CONTENT" + text("letter").substr(7);
  EXPECT_TRUE(originBecomes("letter", expected));
  // A new file that is renamed over it; nothing but the document comes out.
  EXPECT_EQ(shell(sandbox, "sed -i s/CONTENT/Words/ " + inQuotes(path("letter"))), "0 ");
  expected.replace(0, 7, "Words");
  EXPECT_TRUE(originBecomes("letter", expected));
  EXPECT_EQ(contentOf(path("letter")), expected);
  EXPECT_EQ(shell(sandbox,
                  "/usr/bin/python3 -c 'import mmap,sys; f=open(sys.argv[1],\"r+b\"); "
                  "m=mmap.mmap(f.fileno(),0); m[0:2]=b\"PL\"; m.close(); f.close()' " +
                      inQuotes(path("folder/plan"))),
            "0 ");
  EXPECT_TRUE(originBecomes("folder/plan", "PL" + text("folder/plan").substr(2)));
  // What is not the document's stays here, but for the hidden sibling.
  EXPECT_EQ(
      shell(sandbox, "cd " + inQuotes(storage_) + " && echo own > own && echo beside > .letter"),
      "0 ");
  EXPECT_TRUE(eventually([&] { return contentOf(path(".letter")) == "beside\n"; }));
  for (const char* own : {"own", "letter.swp", ".letter.swp"}) {
    EXPECT_FALSE(fs::exists(path(own))) << own;
  }

  // What others do to the document.
  const auto replaced = path("new");
  std::ofstream(replaced) << "by others\n";
  fs::rename(replaced, path("letter"));
  EXPECT_TRUE(shellEventually(sandbox, "cat " + inQuotes(path("letter")), "0 by others "));
  EXPECT_EQ(shell(sandbox, "echo more >> " + inQuotes(path("letter"))), "0 ");
  EXPECT_EQ(contentOf(path("letter")), "by others\nmore\n");
  // Removed here it comes back; removed there it goes.
  EXPECT_EQ(shell(sandbox, "rm " + inQuotes(path("letter"))), "0 ");
  EXPECT_TRUE(shellEventually(sandbox, "cat " + inQuotes(path("letter")), "0 by others more "));
  fs::remove(path("folder/plan"));
  EXPECT_TRUE(eventually([&] { return listing(sandbox, "folder").empty(); }));
}

TEST_F(ShownDocuments, ComeWithAGrantAndGoWithItWhileTheApplicationRuns) {
  ChildProcess sandbox(tool({"run", app, "--document", path("letter")}));
  EXPECT_EQ(listing(sandbox), "letter");
  EXPECT_EQ(shell(sandbox, "head -c 17 " + inQuotes(path("letter"))), "0 content of letter");
  ASSERT_EQ(grant("diary"), 0);
  EXPECT_EQ(listing(sandbox), "diary letter") << "when the answer is there, so is the document";
  EXPECT_EQ(shell(sandbox, "head -c 16 " + inQuotes(path("diary"))), "0 content of diary");
  installSandboxed("com.example.other");
  ASSERT_EQ(grant("folder/plan", "com.example.other"), 0);
  EXPECT_EQ(listing(sandbox), "diary letter") << "what others are granted is nothing to it";

  // The revocation comes while programs have it open, and in the middle of a save.
  EXPECT_EQ(shell(sandbox, "cd " + inQuotes(storage_) +
                               "; mkfifo /tmp/open /tmp/gone; (exec 3< diary; cp diary new; "
                               "mv diary old; echo > /tmp/open; read x < /tmp/gone; "
                               "head -c 7 <&3 > /tmp/read) > /dev/null 2>&1 & read x < /tmp/open"),
            "0 ");
  ASSERT_EQ(revoke("diary"), 0);
  EXPECT_EQ(listing(sandbox), "letter new") << "a copy is the application's own";
  EXPECT_EQ(shell(sandbox, "echo > /tmp/gone"), "0 ");
  EXPECT_TRUE(shellEventually(sandbox, "cat /tmp/read", "0 content"));
  EXPECT_EQ(shell(sandbox, "mv " + inQuotes(path("new")) + " " + inQuotes(path("diary"))), "0 ");

  // A document that gets another name, and stays the same item, does so here.
  const auto scripted = installation_.installProvider("com.example.p");
  ASSERT_TRUE(isRegistered(scripted));
  fs::create_directories(scripted.storage());
  std::ofstream(scripted.document("A.txt")) << "an item";
  ASSERT_EQ(runTool({"extend-bookmark", scripted.document("A.txt"), "--consumer", app}), 0);
  EXPECT_EQ(sandbox.ask("read\t" + scripted.document("A.txt")), "an item");
  // Somebody has it open meanwhile, and is about to save.
  EXPECT_EQ(shell(sandbox, "cd " + inQuotes(scripted.storage()) +
                               "; mkfifo /tmp/begun /tmp/write /tmp/save; "
                               "(exec 3<> A.txt; echo saved > A.txt~; echo > /tmp/begun; "
                               "read x < /tmp/write; printf AN >&3; exec 3>&-; "
                               "read x < /tmp/save; mv A.txt~ A.txt) > /dev/null 2>&1 & "
                               "read x < /tmp/begun"),
            "0 ");
  scripted.behave({{"items", Dictionary{{"C.txt", "item/a"}}}});
  fs::rename(scripted.document("A.txt"), scripted.document("C.txt"));
  EXPECT_TRUE(
      eventually([&] { return sandbox.ask("read\t" + scripted.document("C.txt")) == "an item"; }));
  const auto isTold = [&](const std::string& line, const std::string& content) {
    const auto before = scripted.calls(vendorChanged);
    EXPECT_EQ(shell(sandbox, "cd " + inQuotes(scripted.storage()) + "; " + line), "0 ");
    return eventually([&] {
      return scripted.calls(vendorChanged) > before &&
             contentOf(scripted.document("C.txt")) == content;
    });
  };
  EXPECT_TRUE(isTold("echo > /tmp/write", "AN item"));
  EXPECT_TRUE(isTold("echo > /tmp/save", "saved\n"));
  EXPECT_EQ(sandbox.ask("list\t" + scripted.storage()), "C.txt");
  // What it makes now under the name of before is its own.
  EXPECT_TRUE(isTold("echo own > x; mv x A.txt; echo more >> C.txt", "saved\nmore\n"));
  EXPECT_FALSE(fs::exists(scripted.document("A.txt")));

  // The daemon is killed, and things happen meanwhile.
  EXPECT_EQ(daemon_->end(SIGKILL), -SIGKILL);
  EXPECT_EQ(shell(sandbox, "sed -i s/content/CONTENT/ " + inQuotes(path("letter"))), "0 ");
  daemon_.reset();
  start();
  EXPECT_TRUE(originBecomes("letter", "CONTENT" + text("letter").substr(7)));
  EXPECT_EQ(contentOf(path("diary")), text("diary")) << "nothing comes out without a grant";
  EXPECT_EQ(contentOf(origin_ + "/diary"), text("diary"));
  // What it had under the name of a document does not become the document with the grant.
  ASSERT_EQ(grant("diary"), 0);
  EXPECT_EQ(listing(sandbox), "diary diary (aside) letter");
  EXPECT_EQ(contentOf(path("diary")), text("diary"));

  // Both replace it, unseen: neither is lost.
  EXPECT_EQ(daemon_->end(SIGKILL), -SIGKILL);
  EXPECT_EQ(shell(sandbox, "cd " + inQuotes(storage_) + "; echo inside > x; mv x letter"), "0 ");
  std::ofstream(path("x")) << "outside\n";
  fs::rename(path("x"), path("letter"));
  daemon_.reset();
  start();
  EXPECT_TRUE(shellEventually(sandbox, "cat " + inQuotes(path("letter")), "0 outside "));
  EXPECT_EQ(contentOf(path("letter (changed by " + std::string(app) + ")")), "inside\n");

  std::set<std::string> files;
  for (const auto& entry : fs::directory_iterator(storage_))
    if (entry.is_regular_file()) files.insert(entry.path().filename());
  EXPECT_EQ(files, (std::set<std::string>{"diary", "letter", longest,
                                          "letter (changed by " + std::string(app) + ")"}));

  // Written in place, and saved again and again, while nobody looks.
  EXPECT_EQ(daemon_->end(SIGKILL), -SIGKILL);
  EXPECT_EQ(shell(sandbox, "cd " + inQuotes(storage_) +
                               "; echo unseen >> letter; for i in 1 2 3; do cp letter x && echo $i "
                               ">> x && mv x letter; done"),
            "0 ");
  daemon_.reset();
  start();
  EXPECT_TRUE(originBecomes("letter", "outside\nunseen\n1\n2\n3\n"));

  // Another run of the application has what it was granted, and nothing else.
  sandbox.end();
  ChildProcess next(tool({"run", app}));
  EXPECT_EQ(listing(next), "diary diary (aside) letter");
}

TEST_F(ShownDocuments, AreNoWayOutForAHostileApplication) {
  const std::string secret = installation_ / "secret";
  std::ofstream(secret) << "secret";
  ChildProcess sandbox(tool({"run", app, "--document", path("letter"), path("diary")}));
  const auto in = [&](const std::string& line) {
    return shell(sandbox, "cd " + inQuotes(storage_) + " && " + line);
  };
  // No name of its own for a document's file, and none outside of the view.
  EXPECT_NE(in("ln letter mine 2>&1"), "0 ");
  EXPECT_EQ(in("mv letter \"$HOME\" 2>/dev/null; test -e letter; echo $?").substr(0, 2), "0 ");
  ASSERT_TRUE(shellEventually(sandbox, "test -e " + inQuotes(path("letter")), "0 "));

  // In a document's place: a link out, a directory, a pipe, a socket, what hides a file from
  // overlays, a file in which nothing can be read.
  const auto python = [](const std::string& line) {
    return "/usr/bin/python3 -c 'import ctypes, fcntl, os, socket; libc = ctypes.CDLL(None); " +
           line + "'";
  };
  for (const auto& trick :
       {"ln -s " + inQuotes(secret) + " x", std::string("ln -s ../../../../../secret x"),
        std::string("mkdir x"), std::string("mkfifo x"), std::string("mkdir x .docsource.removed"),
        python("os.chdir(\"/tmp\"); s = socket.socket(socket.AF_UNIX); s.bind(\"s\")") +
            "; mv /tmp/s x",
        python("os.mknod(\"x\", 0o20600, 0)"), std::string("mkfifo x; chmod 0 x")}) {
    const auto before = contentOf(path("letter"));
    EXPECT_EQ(in("rm -rf x; " + trick + "; rm letter; mv -T x letter"), "0 ") << trick;
    EXPECT_TRUE(shellEventually(
        sandbox,
        "test -f " + inQuotes(path("letter")) + " && test ! -L " + inQuotes(path("letter")), "0 "))
        << trick;
    EXPECT_EQ(contentOf(path("letter")), before) << trick;
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path("letter")))) << trick;
  }
  // A program of the user's for others to execute: no bit makes the document one.
  for (const char* special :
       {"chmod u+s letter", "chmod g+s letter",
        "python3 -c 'import os; os.open(\"new\", os.O_CREAT | os.O_WRONLY, 0o4755)'",
        "python3 -c 'import os; os.mknod(\"new\", 0o104755)'",
        "python3 -c 'import os; os.open(\".\", os.O_TMPFILE | os.O_WRONLY, 0o4755)'"}) {
    EXPECT_EQ(in(std::string(special) + " 2> /dev/null").substr(0, 2), "1 ") << special;
  }
  // The document's hidden sibling, but not the sibling's, neither out nor in.
  std::ofstream(path("..diary")) << "of others\n";
  EXPECT_EQ(in("echo beside > .letter; echo more > ..letter; echo beside > .diary"), "0 ");
  EXPECT_TRUE(eventually([&] {
    return contentOf(path(".letter")) == "beside\n" && contentOf(path(".diary")) == "beside\n";
  }));
  EXPECT_EQ(in("echo again > x; mv x .letter; echo again > x; mv x .diary"), "0 ");
  EXPECT_TRUE(eventually([&] {
    return contentOf(path(".letter")) == "again\n" && contentOf(path(".diary")) == "again\n";
  }));
  EXPECT_EQ(in("cat ..diary").substr(0, 2), "1 ");
  EXPECT_FALSE(fs::exists(path("..letter")));
  EXPECT_EQ(in("rm .letter ..letter .diary"), "0 ");
  for (const char* name : {".letter", ".diary", "..diary"}) fs::remove(path(name));
  EXPECT_EQ(in("mv diary letter"), "0 ");
  EXPECT_TRUE(
      shellEventually(sandbox, "head -c 17 " + inQuotes(path("letter")), "0 content of letter"));
  EXPECT_TRUE(
      shellEventually(sandbox, "head -c 16 " + inQuotes(path("diary")), "0 content of diary"));
  EXPECT_EQ(contentOf(path("diary")), text("diary"));

  // What hides a document from overlays in its place, and directories that change places.
  for (const char* names : {"\"letter\", -100, b\"x\", 4", "\".\", -100, b\"../y\", 2"}) {
    EXPECT_EQ(
        in("rm -rf x; mkdir -p ../y; " +
           python("libc.renameat2(-100, os.path.abspath(" +
                  std::string(names).insert(std::string(names).find(','), ").encode()") + ")")),
        "0 ");
    EXPECT_TRUE(shellEventually(
        sandbox, "cd " + inQuotes(storage_) + " && head -c 17 letter && head -c 16 diary",
        "0 content of lettercontent of diary"));
  }
  // A document that is held by a lease, and marked as if its content were not there.
  EXPECT_EQ(
      in(python("f = os.open(\"diary\", os.O_RDWR); fcntl.fcntl(f, fcntl.F_SETLEASE, "
                "fcntl.F_WRLCK); os.setxattr(f, \"user.docsource.placeholder\", b\"mode:7777\")")),
      "0 ");
  EXPECT_TRUE(
      shellEventually(sandbox, "head -c 16 " + inQuotes(path("diary")), "0 content of diary"));
  // Both replace what has no room for another word in its name.
  ASSERT_EQ(grant(longest), 0);
  ASSERT_EQ(kill(daemon_->id(), SIGSTOP), 0);
  EXPECT_EQ(in("echo inside > x; mv x " + longest), "0 ");
  std::ofstream(path("x")) << "outside\n";
  fs::rename(path("x"), path(longest));
  ASSERT_EQ(kill(daemon_->id(), SIGCONT), 0);
  EXPECT_TRUE(shellEventually(sandbox, "cat " + inQuotes(path(longest)), "0 outside "));
  const auto changedBy = " (changed by " + std::string(app) + ").txt";
  EXPECT_EQ(contentOf(path(longest.substr(0, NAME_MAX - changedBy.size()) + changedBy)),
            "inside\n");
  EXPECT_EQ(revoke(longest), 0);

  // More names than anybody is told of, and a save among them.
  ASSERT_EQ(kill(daemon_->id(), SIGSTOP), 0);
  EXPECT_EQ(in("mkdir y && for i in $(seq 20000); do : > y$i; done; rm y?*; sed s/content/FILLED/ "
               "letter > x && mv x letter"),
            "0 ");
  ASSERT_EQ(kill(daemon_->id(), SIGCONT), 0);
  EXPECT_TRUE(originBecomes("letter", "FILLED" + text("letter").substr(7)));

  // The directory itself exchanged for a link out of the view; it may be made anew in between.
  const auto group = fs::path(storage_).parent_path().string();
  EXPECT_EQ(shell(sandbox, "cd " + inQuotes(group) +
                               "; until i=x$i; mv -T 'Doc Source Storage' away$i && ln -sT " +
                               inQuotes(installation_.root()) +
                               " 'Doc Source Storage'; do :; done 2> /dev/null; :"),
            "0 ");
  EXPECT_TRUE(eventually([&] { return listing(sandbox) == "diary letter"; })) << listing(sandbox);
  EXPECT_EQ(contentOf(path("letter")), "FILLED" + text("letter").substr(7));

  // A document that is moved about without a pause does not escape its revocation.
  EXPECT_EQ(in("mkdir -p a/b c; mkfifo /tmp/moved; (mv letter a/b/1; echo > /tmp/moved; "
               "while :; do mv a/b/1 c/2; mv c/2 a/b/1; done) > /dev/null 2>&1 & "
               "read x < /tmp/moved"),
            "0 ");
  ASSERT_EQ(revoke("letter"), 0);
  const auto names = [&](const std::string& name) {
    struct stat status {};
    stat(path(name).c_str(), &status);
    return status.st_nlink;
  };
  EXPECT_EQ(names("letter"), 1U) << "there is no other name of the document anywhere";

  // Nor does one that lies deeper than any path is long, in directories that nobody may enter.
  sandbox.end();
  ChildProcess another(tool({"run", app, "--document", path("diary")}));
  EXPECT_EQ(shell(another, "cd " + inQuotes(storage_) +
                               " && python3 -c 'import os; n = \"d\" * 60; "
                               "[(os.mkdir(n), os.rename(\"diary\", n + \"/diary\"), os.chdir(n), "
                               "os.chmod(\"..\", 0)) for i in range(150)]' 2>&1"),
            "0 ");
  EXPECT_EQ(revoke("diary"), 0);
  EXPECT_EQ(names("diary"), 1U);
  EXPECT_EQ(contentOf(secret), "secret");
}

/// What is done with a document while a daemon is killed. "D" is its path, in the sandbox as
/// outside.
struct Operation {
  std::string name;
  /// A line for a shell, inside or outside.
  bool isInside;
  std::string line;
  /// How the document is afterwards where that went well, from how it was.
  std::string (*after)(std::string before);
  /// What is added to its name by that, or meanwhile: somebody is held where others are killed, the
  /// document renamed, and each second time nobody killed then.
  std::optional<std::string> ending = std::nullopt;
  bool isRenamedMeanwhile = false;
};

/// Each with docsourced or platformd killed right before its first, second, ... call, until there
/// are no more, or no more documents. DOCSOURCE_FAULTS=all takes every call; otherwise some are
/// left out.
class ShownDocumentsInACrash : public ShownDocuments,
                               public testing::WithParamInterface<Operation> {
 protected:
  static constexpr int documents = 120;

  void SetUp() override {
    if (*ENDED_AT_CALL == '\0') GTEST_SKIP() << "the runtime of a sanitizer comes first";
    environment_ = calls_.environment();
    fs::create_directories(origin_);
    for (int i = 0; i < documents; ++i) writeOrigin(nameOf(i), text(nameOf(i)));
    ShownDocuments::SetUp();
  }
  bool isAccount() const override { return GetParam().ending.has_value(); }

  static std::string nameOf(int number) { return "document-" + std::to_string(number); }
  std::string withD(const std::string& name, const std::string& line) const {
    return "D=" + inQuotes(path(name)) + "; " + line;
  }

  /// Whoever was killed serves again.
  void restart() {
    const pid_t ended = calls_->ended;
    if (ended == daemon_->id()) {
      EXPECT_EQ(daemon_->wait(), -SIGKILL);
      daemon_.reset();
      start(environment_);
    } else if (ended == platform_->id()) {
      EXPECT_EQ(platform_->wait(), -SIGKILL);
      startPlatform(environment_);
    }  // Otherwise it was the worker, which is not left to us.
  }

  std::string withTool(const std::string& line) const {
    return "docsource() { env DOCSOURCE_ROOT=" + inQuotes(installation_.root()) + " " +
           inQuotes(builtProgram("docsource")) + " \"$@\"; }; " + line;
  }
  bool isGranted(const std::string& name) const {
    return outside(withTool("docsource grants --json | grep -q '/" + name + "\"'")) == 0;
  }
  static bool isStopped(pid_t process) {
    const auto status = contentOf("/proc/" + std::to_string(process) + "/status");
    return status.find("\nState:\tT") != std::string::npos;
  }
  nlink_t names(const std::string& name) const {
    struct stat status {};
    return stat(path(name).c_str(), &status) == 0 ? status.st_nlink : 0;
  }
  bool nothingIsUnderWay() const {
    const auto view = installation_ / ("Containers/Views/" + std::string(app));
    return !fs::exists(view + "/next") && !fs::exists(view + "/next-known");
  }
  /// Everywhere, and linked as it must be.
  bool is(ChildProcess& sandbox, const std::string& name, const std::string& content) const {
    return contentOf(path(name)) == content && contentOf(origin_ + "/" + name) == content &&
           names(name) == 3 && nothingIsUnderWay() &&
           shell(sandbox, withD(name, "cat \"$D\"")) ==
               "0 " + std::regex_replace(content, std::regex("\n"), " ");
  }
  /// Under a name that it had before there is nothing.
  bool isNowhere(ChildProcess& sandbox, const std::string& name) const {
    return !fs::exists(path(name)) && !fs::exists(origin_ + "/" + name) &&
           shell(sandbox, withD(name, "test -e \"$D\"")) == "1 ";
  }

  const CountedCalls calls_{installation_ / "counts"};
};

TEST_P(ShownDocumentsInACrash, AreWholeAndShownOrGone) {
  const auto& operation = GetParam();
  const char* wanted = std::getenv("DOCSOURCE_FAULTS");
  // An account takes seconds to come back.
  const int stride = wanted && std::string(wanted) == "all" ? 1 : isAccount() ? 8 : 3;
  ASSERT_TRUE(eventually([&] { return isPlaceholder(nameOf(documents - 1)); }));
  ChildProcess sandbox(tool({"run", app}));
  ASSERT_EQ(sandbox.ask("arguments"), "") << "it runs";
  const bool isGrant = operation.name == "granting", isRevocation = operation.name == "revoking";
  int number = 0, calls = 1;
  for (bool hasCome = true; hasCome && number < documents; calls += stride, ++number) {
    const auto before = text(nameOf(number)), after = operation.after(before);
    // What it is called now, and what in the end.
    const auto name = nameOf(number);
    auto last = name + (operation.isRenamedMeanwhile ? "" : operation.ending.value_or(""));
    const bool isRename = name != last;
    const auto done = "/tmp/done" + std::to_string(number);
    SCOPED_TRACE(name + ", " + std::to_string(calls) + " calls");
    if (!isGrant) {
      ASSERT_TRUE(eventually([&] { return grant(name) == 0; }));
    }
    // A placeholder is renamed as well as one whose content is there.
    if (operation.ending && number % 2 != 0) {
      ASSERT_EQ(contentOf(path(name)), before);
    }
    calls_.endAt(calls, operation.isRenamedMeanwhile);
    std::optional<int> status;
    if (operation.isInside) {
      shell(sandbox, "(" + withD(name, operation.line) + "; echo $? > " + done + ") > " + done +
                         ".log 2>&1 &");
    } else {
      status = outside(withD(name, withTool(operation.line)));
    }
    const auto isDone = [&] {
      if (!status) {
        const auto answer = shell(sandbox, "cat " + done);
        if (answer.starts_with("0 ") && answer.size() > 2) status = std::stoi(answer.substr(2));
      }
      return status.has_value();
    };
    // Nothing is read here that somebody who may be killed, or held, has to bring in.
    const auto isGood = [&] {
      if (isRevocation) return names(name) == 1 && nothingIsUnderWay();
      if (operation.isRenamedMeanwhile) {
        return contentOf(origin_ + "/" + name) == after && names(name) == 3 && nothingIsUnderWay();
      }
      if (isRename) {
        return names(last) == 3 && nothingIsUnderWay() && fs::exists(origin_ + "/" + last) &&
               isNowhere(sandbox, name) && shell(sandbox, withD(last, "test -e \"$D\"")) == "0 ";
      }
      return before == after || is(sandbox, name, after);
    };
    EXPECT_TRUE(eventually([&] { return calls_->ended != 0 || (isDone() && isGood()); }));
    calls_->left = 0;
    hasCome = calls_->ended != 0;
    const std::string call = hasCome ? calls_->call.data() : "none";
    bool isKilled = hasCome;
    if (hasCome && operation.isRenamedMeanwhile) {
      ASSERT_TRUE(eventually([&] { return isStopped(calls_->ended); }));
      last += *operation.ending;
      fs::rename(path(name), path(last));
      isKilled = number / 2 % 2 == 0;
      kill(calls_->ended, isKilled ? SIGKILL : SIGCONT);
    }
    SCOPED_TRACE((isKilled ? "killed before " : "held before ") + call);
    if (hasCome && operation.name == "saving" && !isPlaceholder(name)) {
      const auto now = contentOf(path(name));
      EXPECT_TRUE(now == before || now == after)
          << "it is whole at any moment, not " << now.size() << " of " << before.size()
          << " bytes: " << now.substr(0, 260);
    }
    if (isKilled) restart();
    EXPECT_TRUE(eventually(isDone));
    // What was not answered is asked again.
    if (isGrant) {
      EXPECT_TRUE(eventually([&] { return grant(name) == 0; }));
    }
    if (isRevocation) {
      // It had not begun, or goes on without being asked again.
      EXPECT_TRUE(eventually([&] { return names(name) == (isGranted(name) ? 3 : 1); }));
      EXPECT_TRUE(eventually([&] { return revoke(name) == 0; }));
      EXPECT_NE(shell(sandbox, withD(name, "cat \"$D\" 2>&1")).substr(0, 2), "0 ");
      EXPECT_EQ(contentOf(path(name)), before);
    } else {
      EXPECT_TRUE(eventually([&] {
        return is(sandbox, last, after) || (status != 0 && is(sandbox, last, before));
      })) << "status "
          << status.value_or(-1) << ", " << names(last) << " names; here "
          << contentOf(path(last)).substr(0, 20) << ", at the origin "
          << contentOf(origin_ + "/" + last).substr(0, 20) << ", inside "
          << shell(sandbox, withD(last, "cat \"$D\"")).substr(0, 20)
          << (nothingIsUnderWay() ? "" : ", something is under way");
    }
    if (last != name) {
      EXPECT_TRUE(eventually([&] { return isNowhere(sandbox, name); }));
      // It is the document's still.
      shell(sandbox, withD(last, "printf CONTENT | dd conv=notrunc of=\"$D\""));
      EXPECT_TRUE(originBecomes(last, "CONTENT" + after.substr(7)));
    }
    if (HasFailure()) break;
  }
  std::printf("%s: killed %d times\n", operation.name.c_str(), number - 1);
  EXPECT_GT(number, 1) << "nobody was killed";
  for (const auto& listed : {outsideListing(), listing(sandbox)}) {
    EXPECT_EQ(listed.find(" ("), std::string::npos) << listed;
  }
}

const auto same = [](std::string before) { return before; };
const auto changed = [](std::string before) { return "CONTENT" + before.substr(7); };
INSTANTIATE_TEST_SUITE_P(
    Operations, ShownDocumentsInACrash,
    testing::Values(
        Operation{"granting", false,
                  "docsource extend-bookmark \"$D\" --consumer com.example.unknowing", same},
        Operation{"reading", true, "cat \"$D\" > /dev/null", same},
        Operation{"saving", true, "sed s/content/CONTENT/ \"$D\" > \"$D~\" && mv \"$D~\" \"$D\"",
                  changed},
        Operation{"writing", true, "printf CONTENT | dd conv=notrunc of=\"$D\"", changed},
        Operation{"revoking", false,
                  "docsource revoke \"$D\" --provider com.example.provider --consumer "
                  "com.example.unknowing",
                  same},
        Operation{"renaming", false, "mv \"$D\" \"$D.renamed\"", same, ".renamed"},
        Operation{"savingRenamed", true,
                  "sed s/content/CONTENT/ \"$D\" > \"$D~\" && mv \"$D~\" \"$D\"", changed,
                  ".renamed", true},
        Operation{"writingRenamed", true, "printf CONTENT | dd conv=notrunc,nocreat of=\"$D\"",
                  changed, ".renamed", true}),
    [](const auto& each) { return each.param.name; });

}  // namespace
}  // namespace qx::test
