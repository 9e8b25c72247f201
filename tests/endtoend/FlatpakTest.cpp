// Programs in sandboxes that are laid out as Flatpak does it, and in such as pretend to be.

#include "tests/endtoend/Broker.h"

namespace qx::test {
namespace {

namespace fs = std::filesystem;

const char* const hello = "org.example.Hello";
const char* const tool = "com.veltro.docsource.tool";

class Flatpak : public SandboxBroker {
 protected:
  void SetUp() override {
    if (!canSandbox()) GTEST_SKIP() << "no bubblewrap, or no user namespaces";
    start({{"XDG_RUNTIME_DIR", runtime_.path()}});
    startPlatform({{"XDG_RUNTIME_DIR", runtime_.path()}});
    ASSERT_TRUE(isRegistered(provider_));
    fs::create_directories(provider_.storage());
    for (const char* name : {"A.txt", "B c.txt"}) {
      std::ofstream(provider_.document(name)) << "content of " << name[0];
    }
    fs::create_directory(program_);
    fs::copy_file(builtProgram("sandboxed-consumer"), program_ + "/program");
    fs::copy_file(CLIENT_LIBRARY, program_ + "/" + CLIENT_LIBRARY_NAME);
  }

  std::string instance(const std::string& number) const {
    return runtime_ / (".flatpak/" + number);
  }
  std::string information(const std::string& identifier, const std::string& number) const {
    return "[Application]\nname=" + identifier + "\n\n[Instance]\ninstance-id=" + number +
           "\napp-path=" + program_ + "\n";
  }

  /// The words of a shell that becomes a sandbox with that file in its root, and what else is said.
  std::vector<std::string> sandbox(const std::string& text, const std::string& more,
                                   const std::string& file = "--ro-bind-data 9") const {
    std::ofstream(runtime_ / "text") << text;
    std::string line = "bwrap --unshare-user --unshare-pid --die-with-parent --ro-bind /usr /usr";
    for (const char* name : {"/bin", "/lib", "/lib64"}) {
      if (fs::is_symlink(name)) line += " --symlink usr" + std::string(name) + " " + name;
    }
    const std::string inside = "/run/user/" + std::to_string(getuid());
    line += " --proc /proc --dev /dev --tmpfs /tmp --ro-bind " + program_ + " /app --bind " +
            (installation_ / "run/sandbox") + " " + inside + "/docsource/sandbox " + file +
            " /.flatpak-info --setenv XDG_RUNTIME_DIR " + inside + " --unsetenv DOCSOURCE_ROOT " +
            more + " /app/program 9< " + (runtime_ / "text");
    return {"sh", "-c", "exec " + line};
  }
  /// One that Flatpak runs.
  std::vector<std::string> run(const std::string& identifier, const std::string& number) const {
    fs::create_directories(instance(number));
    std::ofstream(instance(number) + "/.ref").close();
    const std::string inside = "/run/flatpak/.flatpak/" + number;
    auto words = sandbox(information(identifier, number), "--ro-bind " + instance(number) + " " +
                                                              inside + " --lock-file " + inside +
                                                              "/.ref --info-fd 8");
    words.back() += " 8> " + instance(number) + "/bwrapinfo.json";
    return words;
  }

  /// What a program reads of the document by a bookmarkable string.
  static std::string read(ChildProcess& program, const std::string& bookmark) {
    const auto resolved = resolve(program, bookmark);
    return resolved.token.empty() ? resolved.url : program.ask("redeem\t" + resolved.token);
  }

  TemporaryDirectory runtime_;
  const std::string program_ = runtime_ / "program";
};

TEST_F(Flatpak, IsTheApplicationThatFlatpakRuns) {
  const auto bookmark = grant("A.txt", hello);
  const auto extend = "extend-sandbox\t" + provider_.url("A.txt").absoluteString() + "\t" + p +
                      "\t" + std::string(hello);
  ChildProcess program(run(hello, "17"));
  EXPECT_EQ(program.ask("arguments"), "");
  EXPECT_EQ(read(program, bookmark), "content of A");
  EXPECT_EQ(read(program, grant("B c.txt", "org.example.Other")), "error DSErrorDomain 3");
  EXPECT_EQ(program.ask(extend), "error DSErrorDomain 6") << "it has no bundle";

  // The entitlements of a bundle of that identifier, whatever its executable is.
  makeBundle(installation_ / "Applications/hello.app", hello, "/bin/true",
             {{writeEntitlement, true}});
  EXPECT_TRUE(program.ask(extend).starts_with("2:")) << program.ask(extend);
  makeBundle(installation_ / "Applications/again.app", hello, "/bin/false");
  EXPECT_EQ(read(program, bookmark), "error DSErrorDomain 3") << "its identifier is disputed";
  fs::remove_all(installation_ / "Applications/again.app");
  EXPECT_EQ(read(program, bookmark), "content of A");

  // What a user installed is not the machine's application of that name.
  const auto tools = grant("A.txt", tool);
  ASSERT_EQ(chown(program_.c_str(), getuid() == 0 ? 1 : getuid(), gid_t(-1)), 0);
  ChildProcess impostor(run(tool, "18"));
  EXPECT_EQ(read(impostor, tools), "error DSErrorDomain 3");
}

TEST_F(Flatpak, IsNobodyWhoCallsItselfOne) {
  const auto bookmark = grant("A.txt", hello);
  ChildProcess genuine(run(hello, "17"));
  ASSERT_EQ(read(genuine, bookmark), "content of A");
  const auto isRefused = [&](std::vector<std::string> words, const char* why) {
    ChildProcess program(std::move(words));
    EXPECT_EQ(program.ask("arguments"), "") << why;
    EXPECT_EQ(read(program, bookmark), "error DSErrorDomain 3") << why;
  };
  const auto text = information(hello, "17");
  isRefused(sandbox(text, ""), "the file of another sandbox");
  isRefused(sandbox(information(hello, "18"), ""), "no such instance");

  // What Flatpak noted is true, but the file is not what Flatpak puts there.
  auto words = run("org.example.Other", "18");
  isRefused(words, "another application");
  words = run(hello, "19");
  std::ofstream(runtime_ / "text") << text;
  isRefused(words, "another instance");
  words = run(hello, "20");
  words.back().replace(words.back().find("--ro-bind-data"), 14, "--bind-data");
  isRefused(words, "a file that it can write");
  words = run(hello, "21");
  words.back().replace(words.back().find("--ro-bind-data 9"), 16, "--symlink /app/info");
  std::ofstream(program_ + "/info") << information(hello, "21");
  isRefused(words, "a link");

  // Within it, in namespaces of its own: the application has no way to a note of Flatpak's.
  words = run(hello, "22");
  words.back().replace(words.back().find(" /app/program"), 13,
                       " bwrap --unshare-user --bind / / --dev /dev --proc /proc /app/program");
  isRefused(words, "another mount namespace");

  // A note that was left behind, of a mount namespace that is somebody else's by now.
  const auto note = instance("17") + "/bwrapinfo.json";
  fs::create_directory(instance("23"));
  fs::copy_file(note, instance("23") + "/bwrapinfo.json");
  std::ofstream(instance("23") + "/.ref").close();
  fs::rename(note, note + ".away");
  EXPECT_EQ(read(genuine, bookmark), "error DSErrorDomain 3") << "nobody holds its lock";
  fs::rename(note + ".away", note);
  EXPECT_EQ(read(genuine, bookmark), "content of A");
}

}  // namespace
}  // namespace qx::test
