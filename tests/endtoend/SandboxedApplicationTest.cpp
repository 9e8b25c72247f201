// Applications that `docsource run` starts: what they can see of the machine, and what the services
// give them there.

#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/personality.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>

#include "tests/endtoend/Broker.h"

namespace qx::test {
namespace {

namespace fs = std::filesystem;

const char* const app = "com.example.sandboxed";
const char* const other = "com.example.other";

void write(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ofstream::trunc) << text;
}

class SandboxedApplication : public SandboxBroker {
 protected:
  void SetUp() override {
    if (!canSandbox()) GTEST_SKIP() << "no bubblewrap, or no user namespaces";
    start();
    startPlatform();
    ASSERT_TRUE(isRegistered(provider_));
    fs::create_directories(provider_.storage());
    write(provider_.document("A.txt"), "content of A");
    write(provider_.document(".A.txt"), "beside A");
    write(provider_.document("B c.txt"), "content of B");
  }

  std::string bundleOf(const std::string& identifier) const {
    return installation_ / ("Applications/" + identifier + ".app");
  }
  std::string dataOf(const std::string& identifier) const {
    return installation_ / ("Containers/Data/" + identifier);
  }

  std::vector<std::string> command(const std::string& identifier,
                                   const std::vector<std::string>& arguments = {}) const {
    std::vector<std::string> words{"env",
                                   "DOCSOURCE_ROOT=" + installation_.root(),
                                   "SECRET=do not tell",
                                   builtProgram("docsource"),
                                   "run",
                                   identifier};
    if (!arguments.empty()) words.emplace_back("--");
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
  }
};

TEST_F(SandboxedApplication, SeesNothingButItsOwn) {
  installSandboxed(app);
  installSandboxed(other);
  fs::create_directories(dataOf(other));
  write(dataOf(other) + "/secret", "of another application");
  grant("A.txt", other);
  ASSERT_TRUE(fs::exists(installation_ / "run/com.veltro.DocSource.lock"));
  write(installation_ / "run/sandbox.key", std::string(32, 'k'));
  const FileDescriptor leak(open(installation_.root().c_str(), O_PATH));
  ASSERT_TRUE(leak);
  ChildProcess sandboxed(command(app));

  for (const auto& hidden :
       {provider_.document("A.txt"), installation_ / "Containers/Views",
        installation_ / "Extensions", installation_ / "Home", installation_ / "run/sandbox.key",
        installation_ / "run/com.veltro.DocSource.lock", installation_ / "run/notify",
        dataOf(other) + "/secret", bundleOf(other) + "/Info.plist", builtProgram("docsourced"),
        std::string("/etc/shadow"), std::string("/sys"), std::string("/root"),
        std::string("/var")}) {
    EXPECT_EQ(sandboxed.ask("read\t" + hidden), "error ENOENT") << hidden;
  }
  EXPECT_EQ(sandboxed.ask("list\t" + installation_.root()), "Applications Containers run");
  EXPECT_EQ(sandboxed.ask("list\t" + installation_ / "Applications"), app + std::string(".app"));
  EXPECT_EQ(sandboxed.ask("list\t" + installation_ / "Containers"), "Data Group");
  EXPECT_EQ(sandboxed.ask("list\t" + installation_ / "Containers/Group"), "");
  EXPECT_EQ(sandboxed.ask("list\t" + installation_ / "Containers/Data"), app);
  EXPECT_EQ(sandboxed.ask("list\t" + installation_ / "run"),
            "com.veltro.DocSource com.veltro.DocSource.Grants com.veltro.FileCoordination "
            "com.veltro.Sandbox");

  EXPECT_EQ(sandboxed.ask("processes"), "bwrap program");
  EXPECT_EQ(sandboxed.ask("read\t/proc/keys"), "error EACCES");
  EXPECT_EQ(sandboxed.ask("descriptors").substr(0, 7), "0 1 2 3") << "3 is the directory read";
  EXPECT_EQ(sandboxed.ask("descriptors").size(), 7U);
  EXPECT_EQ(sandboxed.ask("variable\tSECRET"), "error unset");
  for (const char* process : {"1", "self"}) {
    const auto variables = sandboxed.ask("read\t/proc/" + std::string(process) + "/environ");
    EXPECT_NE(variables.find("HOME=" + dataOf(app)), std::string::npos);
    EXPECT_EQ(variables.find("SECRET"), std::string::npos);
  }

  // It writes at home, and into a temporary directory that is nobody else's.
  EXPECT_EQ(sandboxed.ask("variable\tHOME"), dataOf(app));
  EXPECT_EQ(sandboxed.ask("write\tnotes\tmine"), "written");
  EXPECT_EQ(contentOf(dataOf(app) + "/notes"), "mine");
  struct stat status;
  ASSERT_EQ(stat(dataOf(app).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0700U);
  const std::string temporary = "/tmp/" + fs::path(installation_.root()).filename().string() + "x";
  EXPECT_EQ(sandboxed.ask("write\t" + temporary + "\tx"), "written");
  EXPECT_FALSE(fs::exists(temporary));
  for (const auto& readOnly : {bundleOf(app) + "/Info.plist", installation_ / "run/x",
                               installation_ / "x", std::string("/usr/x"), std::string("/etc/x"),
                               std::string("/x"), std::string("/proc/sys/kernel/domainname")}) {
    EXPECT_EQ(sandboxed.ask("write\t" + readOnly + "\tx"), "error EROFS") << readOnly;
  }
}

TEST_F(SandboxedApplication, RedeemsReadsAndWritesWhatItWasGranted) {
  installSandboxed(app);
  ChildProcess sandboxed(command(app));
  const auto granted = resolve(sandboxed, grant("A.txt", app));
  EXPECT_EQ(granted.url, provider_.url("A.txt").absoluteString());
  EXPECT_EQ(granted.siblingURL, provider_.url(".A.txt").absoluteString());

  EXPECT_EQ(sandboxed.ask("redeem\t" + granted.token), "content of A");
  EXPECT_EQ(sandboxed.ask("rewrite\t" + granted.token + "\tedited"), "written");
  EXPECT_EQ(contentOf(provider_.document("A.txt")), "edited");
  EXPECT_EQ(sandboxed.ask("redeem\t" + granted.siblingToken), "beside A");
  EXPECT_EQ(sandboxed.ask("rewrite\t" + granted.siblingToken + "\tnew"), "written");
  EXPECT_EQ(contentOf(provider_.document(".A.txt")), "new");

  auto altered = granted.token;
  altered.back() = altered.back() == '0' ? '1' : '0';
  EXPECT_EQ(sandboxed.ask("redeem\t" + altered), "error QXPOSIXErrorDomain 74");

  // Its document and nothing else.
  EXPECT_EQ(sandboxed.ask("look-around\t" + granted.token), "error ENOTDIR");
  EXPECT_EQ(sandboxed.ask("list\t" + provider_.storage()), ".A.txt A.txt");
  EXPECT_EQ(contentOf(provider_.document("B c.txt")), "content of B");

  // A token from somebody who may grant, in the application's arguments.
  const auto extension = grantor_.connect().call(extendSandbox, {provider_.url("B c.txt"), p, app});
  const auto* token = extension.at<Bytes>(1);
  ASSERT_TRUE(token) << extension.outcome();
  ChildProcess handed(command(app, {std::string(token->begin(), token->end()), "-x", "", "--"}));
  const auto arguments = handed.ask("arguments");
  EXPECT_EQ(arguments, std::string(token->begin(), token->end()) + " -x  --");
  EXPECT_EQ(handed.ask("redeem\t" + arguments.substr(0, arguments.find(' '))), "content of B");
}

TEST_F(SandboxedApplication, KeepsItsIdentityAndIsCheckedFromInside) {
  installSandboxed(app, {{writeEntitlement, true}});
  ChildProcess sandboxed(command(app));
  const auto url = provider_.url("B c.txt").absoluteString();

  // What it was not granted it cannot pass on, since it cannot reach it itself.
  EXPECT_EQ(sandboxed.ask("arguments"), "") << "it runs";
  const auto bookmark = grant("A.txt", app);
  EXPECT_EQ(sandboxed.ask("extend-bookmark\t" + url + "\t" + other), "error DSErrorDomain 3");
  EXPECT_EQ(sandboxed.ask("coordinate\t" + url), "error QXStandardErrorDomain 260");
  // Nor through a file of its own in the document's place.
  EXPECT_EQ(sandboxed.ask("write\t" + provider_.document("B c.txt") + "\tx"), "written");
  EXPECT_EQ(sandboxed.ask("extend-bookmark\t" + url + "\t" + other), "error DSErrorDomain 3");
  EXPECT_EQ(contentOf(provider_.document("B c.txt")), "content of B");
  // A file of its own passes the check; the broker then finds no provider for it.
  EXPECT_EQ(sandboxed.ask("write\town\tmine"), "written");
  EXPECT_EQ(sandboxed.ask("extend-bookmark\t" +
                          URL::fileURL(dataOf(app) + "/own").absoluteString() + "\t" + other),
            "error DSErrorDomain 2");
  // A file of a place that is private to it is no file outside.
  EXPECT_EQ(sandboxed.ask("write\t/tmp/own\tx"), "written");
  EXPECT_EQ(sandboxed.ask("extend-bookmark\tfile:///tmp/own\t" + std::string(other)),
            "error DSErrorDomain 3");

  // The entitlements are those of its bundle, at each question.
  EXPECT_TRUE(sandboxed.ask("extend-sandbox\t" + url + "\t" + p + "\t" + other).starts_with("2:"));
  fs::remove(bundleOf(app) + "/Entitlements.plist");
  EXPECT_EQ(sandboxed.ask("extend-sandbox\t" + url + "\t" + p + "\t" + other),
            "error DSErrorDomain 6");
  EXPECT_NE(resolve(sandboxed, bookmark).token, "");
  installation_.remove(bundleOf(app));
  EXPECT_EQ(sandboxed.ask("resolve\t" + bookmark), "error DSErrorDomain 3");
}

/// The programs of the system lie where every sandbox sees them. Executed there they are the
/// application, and have what it has.
TEST_F(SandboxedApplication, ExecutesTheSystemsProgramsAsItself) {
  installSandboxed(app, {{readEntitlement, true}});
  const auto build = fs::path(builtProgram("docsource")).parent_path().parent_path();
  const auto quoted = [](const std::string& word) { return "'" + word + "'"; };
  std::string line = "mount --bind " + quoted(build) + " /usr/local && echo mounted && exec";
  for (const auto& word : command(app)) line += " " + quoted(word);
  ChildProcess sandboxed({"unshare", "--mount", "sh", "-c", line});
  if (sandboxed.readLine() != "mounted") GTEST_SKIP() << "needs CAP_SYS_ADMIN, to mount";

  const auto libraries = "/usr/local/" + fs::relative(CLIENT_LIBRARY, build).parent_path().string();
  const auto tool = "LD_LIBRARY_PATH=" + libraries + " /usr/local/bin/docsource --timeout 20 ";
  const auto url = provider_.url("A.txt").absoluteString();
  const auto answer = [&](const std::string& arguments) {
    return sandboxed.ask("run\t" + tool + arguments);
  };
  EXPECT_EQ(answer("wake-up").substr(0, 2), "0 ") << "the tool runs there";
  EXPECT_EQ(answer("providers").substr(0, 2), "0 ") << "with what the application may";
  const std::string item = url + " --provider " + p + " --consumer " + app;
  const auto extended = answer("extend-sandbox " + item), started = answer("start " + item);
  EXPECT_TRUE(extended.starts_with("1 DSErrorDomain 6")) << extended;
  EXPECT_TRUE(started.starts_with("1 DSErrorDomain 3")) << started;
  const auto granted = answer("resolve " + grant("A.txt", "com.veltro.docsource.tool"));
  EXPECT_TRUE(granted.starts_with("1 DSErrorDomain 3")) << granted;
  const auto own = answer("resolve " + grant("A.txt", app));
  EXPECT_TRUE(own.starts_with("0 ")) << own;

  // A daemon finds nothing there that it could serve or take over.
  const auto daemon = sandboxed.ask("run\t/usr/local/bin/docsourced");
  EXPECT_TRUE(daemon.starts_with("1 ")) << daemon;
  EXPECT_TRUE(provider_.running() < 0 || provider_.calls("performInitialSetup") <= 1);
  EXPECT_EQ(sandboxed.ask("run\techo $$").substr(0, 2), "0 ");
}

TEST_F(SandboxedApplication, IsRefusedWhatLeadsOutOfASandbox) {
  installSandboxed(app);
  const std::string abstract = "docsource-test-" + std::to_string(getpid());
  const FileDescriptor listener = listenAt("@" + abstract);
  ASSERT_NE(contentOf("/proc/net/unix").find(abstract), std::string::npos);

  ChildProcess sandboxed(command(app));
  EXPECT_EQ(sandboxed.ask("run\tcat /proc/net/unix").find(abstract), std::string::npos);
  const auto call = [&](long number, std::initializer_list<unsigned long> arguments) {
    std::string line = "call\t" + std::to_string(number);
    for (const auto argument : arguments) line += " " + std::to_string(argument);
    return sandboxed.ask(line);
  };
  constexpr unsigned long upperHalf = 1UL << 32U, self = 2;
  struct Case {
    long number;
    std::initializer_list<unsigned long> arguments;
  };
  for (const auto& [number, arguments] : std::initializer_list<Case>{
           {SYS_add_key, {}},
           {SYS_linkat, {}},
           {SYS_keyctl, {0, 0xfffffffd, 1}},
           {SYS_request_key, {}},
           {SYS_ptrace, {PTRACE_TRACEME}},
           {SYS_process_vm_readv, {self}},
           {SYS_process_vm_writev, {self}},
           {SYS_pidfd_getfd, {}},
           {SYS_kcmp, {self, self}},
           {SYS_bpf, {}},
           {SYS_perf_event_open, {}},
           {SYS_userfaultfd, {1}},
           {SYS_io_uring_setup, {1}},
           {SYS_io_uring_enter, {}},
           {SYS_io_uring_register, {}},
           {SYS_mount, {}},
           {SYS_umount2, {}},
           {SYS_pivot_root, {}},
           {SYS_chroot, {}},
           {SYS_open_tree, {}},
           {SYS_move_mount, {}},
           {SYS_fsopen, {}},
           {SYS_fsconfig, {}},
           {SYS_fsmount, {}},
           {SYS_fspick, {}},
           {SYS_mount_setattr, {}},
           {SYS_setns, {}},
           {SYS_unshare, {CLONE_NEWUSER}},
           {SYS_unshare, {CLONE_NEWUSER | CLONE_NEWNS}},
           {SYS_clone, {CLONE_NEWUSER | SIGCHLD}},
           {SYS_kexec_load, {}},
           {SYS_init_module, {}},
           {SYS_finit_module, {}},
           {SYS_delete_module, {}},
           {SYS_personality, {READ_IMPLIES_EXEC}},
           {SYS_personality, {ADDR_NO_RANDOMIZE}},
           {SYS_personality, {0x80000000 | READ_IMPLIES_EXEC}},
           {SYS_personality, {upperHalf | READ_IMPLIES_EXEC}},
           {SYS_ioctl, {0, TIOCSTI}},
           {SYS_ioctl, {0, upperHalf | TIOCSTI}},
           {SYS_ioctl, {0, TIOCLINUX}},
           {SYS_socket, {AF_VSOCK, SOCK_STREAM}},
           {SYS_socket, {upperHalf | AF_VSOCK, SOCK_STREAM}},
           {SYS_socket, {AF_ALG, SOCK_SEQPACKET}},
       }) {
    EXPECT_EQ(call(number, arguments), "error EPERM")
        << number << " " << testing::PrintToString(std::vector(arguments));
  }
  EXPECT_EQ(call(SYS_clone3, {}), "error ENOSYS");
  EXPECT_EQ(sandboxed.ask("foreign-call"), "error EPERM");
  EXPECT_EQ(call(SYS_personality, {0xffffffff}), "done");
  EXPECT_EQ(call(SYS_socket, {AF_INET, SOCK_DGRAM}), "done");
#ifdef __x86_64__
  EXPECT_EQ(call(0x40000000 | SYS_getpid, {}), "error EPERM");
#endif

  // Nobody can stop or end who waits for it, and so leave it running alone.
  for (const char* signal : {"STOP", "TSTP", "KILL", "TERM"}) {
    sandboxed.ask("run\tkill -" + std::string(signal) + " 1");
  }
  EXPECT_EQ(sandboxed.ask("processes"), "bwrap program");
  sandboxed.writeLine("exit\t5");
  EXPECT_EQ(sandboxed.wait(), 5);
}

TEST_F(SandboxedApplication, GetsOfTheWorldWhatItsBundleWantsAndNothingElse) {
  installSandboxed(app);
  const TemporaryDirectory session;
  const auto number = std::to_string(20000 + getpid() % 40000);
  const auto x11 = "/tmp/.X11-unix/X" + number, abstract = "@docsource-test-" + number;
  fs::create_directories(session / "pulse");
  fs::create_directories("/tmp/.X11-unix");
  fs::create_directories(session / "dbus-1/services");
  const FileDescriptor listeners[] = {listenAt(session / "wayland-7"), listenAt(x11),
                                      listenAt(session / "pulse/native"), listenAt(abstract)};
  for (const auto& listener : listeners) ASSERT_TRUE(listener);
  const auto field = [](const std::string& text) {
    return std::string{'\0', static_cast<char>(text.size())} + text;
  };
  write(session / "authorities", std::string("\1\0", 2) + field("host") + field(number) +
                                     field("MAGIC") + field("of this") + std::string("\1\0", 2) +
                                     field("host") + field("1") + field("MAGIC") +
                                     field("of other"));
  const FileDescriptor server(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in place{};
  place.sin_family = AF_INET;
  place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof place;
  ASSERT_EQ(bind(server.get(), reinterpret_cast<sockaddr*>(&place), size), 0);
  ASSERT_EQ(listen(server.get(), 64), 0);
  ASSERT_EQ(getsockname(server.get(), reinterpret_cast<sockaddr*>(&place), &size), 0);

  // A bus on which both names are started when somebody talks to them, and fail.
  const bool hasBus = fs::exists("/usr/bin/dbus-daemon") && fs::exists("/usr/bin/xdg-dbus-proxy") &&
                      fs::exists("/usr/bin/dbus-send");
  if (!hasBus) std::puts("no dbus-daemon, dbus-send or xdg-dbus-proxy: nothing is said of the bus");
  for (const char* name : {"org.example.Named", "org.example.Other"}) {
    write(session / ("dbus-1/services/" + std::string(name) + ".service"),
          "[D-BUS Service]\nName=" + std::string(name) + "\nExec=/bin/false\n");
  }
  std::optional<ChildProcess> bus;
  const auto address = "unix:path=" + session / "bus";
  if (hasBus) {
    bus.emplace(std::vector<std::string>{"env", "XDG_RUNTIME_DIR=" + session.path(), "dbus-daemon",
                                         "--session", "--nofork", "--print-address",
                                         "--address=" + address});
    ASSERT_TRUE(bus->readLine().starts_with(address));
  }

  const auto runs = [&](const Dictionary& wishes) {
    auto info = bundleInfo(app, "program");
    info.insert(wishes.begin(), wishes.end());
    writeList(bundleOf(app) + "/Info.plist", info);
    auto words = command(app);
    words.insert(words.begin() + 1,
                 {"XDG_RUNTIME_DIR=" + session.path(), "WAYLAND_DISPLAY=wayland-7",
                  "DISPLAY=unix:" + number + ".0", "XAUTHORITY=" + session / "authorities",
                  "DBUS_SESSION_BUS_ADDRESS=" + address});
    return words;
  };
  const auto connecting = [](const std::string& family, const std::string& where) {
    return "/usr/bin/python3 -c 'import os, socket, sys; sys.exit(socket.socket(socket." + family +
           ").connect_ex(" + where + ") != 0)'";
  };
  const auto inPython = "\"\\0" + abstract.substr(1) + "\"";
  ASSERT_EQ(ChildProcess({"sh", "-c", connecting("AF_UNIX", inPython)}).wait(), 0);
  const auto seen = [&](ChildProcess& sandboxed) {
    std::string all;
    const auto note = [&](const std::string& word, const char* family, const std::string& where) {
      if (sandboxed.ask("run\t" + connecting(family, where)) == "0 ") all += word + " ";
    };
    const std::string runtime = "os.environ[\"XDG_RUNTIME_DIR\"] + ";
    note("wayland", "AF_UNIX",
         runtime + "\"/\" + os.environ.get(\"WAYLAND_DISPLAY\", \"wayland-0\")");
    note("x11", "AF_UNIX", "\"" + x11 + "\"");
    note("sound", "AF_UNIX", runtime + "\"/pulse/native\"");
    note("network", "AF_INET", "(\"127.0.0.1\", " + std::to_string(ntohs(place.sin_port)) + ")");
    note("abstract", "AF_UNIX", inPython);
    note("bus", "AF_UNIX", runtime + "\"/bus\"");
    note("session", "AF_UNIX", "\"" + session / "bus" + "\"");
    return all;
  };
  {
    ChildProcess nothing(runs({}));
    EXPECT_EQ(seen(nothing), "");
    for (const char* name :
         {"DISPLAY", "WAYLAND_DISPLAY", "XAUTHORITY", "DBUS_SESSION_BUS_ADDRESS"})
      EXPECT_EQ(nothing.ask("variable\t" + std::string(name)), "error unset");
  }
  for (const auto& [key, word] :
       std::map<std::string, std::string>{{"QXSandboxWayland", "wayland "},
                                          {"QXSandboxX11", "x11 "},
                                          {"QXSandboxSound", "sound "},
                                          {"QXSandboxNetwork", "network "}}) {
    ChildProcess sandboxed(runs({{key, true}}));
    EXPECT_EQ(seen(sandboxed), word);
    if (word != "x11 ") continue;
    EXPECT_EQ(sandboxed.ask("variable\tDISPLAY"), ":" + number);
    const auto authorities = sandboxed.ask("run\ttr '\\000' 0 < $XAUTHORITY");
    EXPECT_NE(authorities.find("of this"), std::string::npos) << authorities;
    EXPECT_EQ(authorities.find("of other"), std::string::npos) << authorities;
  }
  fs::remove(x11);
  EXPECT_EQ(ChildProcess(runs({{"QXSandboxNetwork", "yes"}})).wait(), 1);
  EXPECT_EQ(ChildProcess(runs({{"QXSandboxSessionBusNames", Array{"--own=org.example"}}})).wait(),
            1);
  if (!hasBus) return;
  {
    ChildProcess sandboxed(runs({{"QXSandboxSessionBusNames", Array{"org.example.Named"}}}));
    EXPECT_EQ(seen(sandboxed), "bus ");
    const auto talk = [&](const std::string& name) {
      return sandboxed.ask("run\tdbus-send --session --print-reply --dest=" + name +
                           " / org.freedesktop.DBus.Peer.Ping");
    };
    EXPECT_NE(talk("org.example.Named").find("Spawn.ChildExited"), std::string::npos);
    EXPECT_NE(talk("org.example.Other").find("ServiceUnknown"), std::string::npos);
    EXPECT_EQ(sandboxed
                  .ask("run\tdbus-send --session --print-reply --dest=org.freedesktop.DBus / "
                       "org.freedesktop.DBus.ListActivatableNames")
                  .find("org.example.Other"),
              std::string::npos);
  }
  // Who was killed leaves nothing that stays.
  ChildProcess next(runs({{"QXSandboxSessionBusNames", Array{"org.example.*"}}}));
  EXPECT_EQ(seen(next), "bus ");
  const fs::directory_iterator entries(installation_ / "run");
  EXPECT_EQ(std::count_if(begin(entries), end(entries),
                          [](const fs::directory_entry& entry) {
                            return entry.path().filename().string().starts_with("bus.");
                          }),
            1);
}

TEST_F(SandboxedApplication, ReachesServicesThatStartedAfterIt) {
  installSandboxed(app);
  const auto bookmark = grant("A.txt", app);
  ChildProcess sandboxed(command(app));
  EXPECT_NE(resolve(sandboxed, bookmark).token, "");
  stop();
  platform_.reset();
  EXPECT_EQ(sandboxed.ask("list\t" + installation_ / "run"), "");
  EXPECT_EQ(sandboxed.ask("resolve\t" + bookmark), "error DocSourceLibraryErrorDomain 2");

  // A service manager's socket, whose service starts when somebody connects.
  {
    const auto socket = listenAt(installation_ / "run/com.veltro.DocSource");
    ChildProcess early(command(app));
    EXPECT_EQ(early.ask("list\t" + installation_ / "run"), "com.veltro.DocSource");
    EXPECT_EQ(sandboxed.ask("list\t" + installation_ / "run"), "com.veltro.DocSource");
  }

  start();
  startPlatform();
  ASSERT_TRUE(isRegistered(provider_));
  const auto granted = resolve(sandboxed, bookmark);
  EXPECT_EQ(sandboxed.ask("redeem\t" + granted.token), "content of A");
}

TEST_F(SandboxedApplication, EndsAsItsProgramDoes) {
  installSandboxed(app);
  for (const int status : {0, 7}) {
    ChildProcess sandboxed(command(app));
    sandboxed.writeLine("exit\t" + std::to_string(status));
    EXPECT_EQ(sandboxed.wait(), status);
  }
  EXPECT_EQ(ChildProcess(command("com.example.missing")).wait(), 1);
  EXPECT_EQ(ChildProcess({"env", "DOCSOURCE_ROOT=" + installation_.root(), "PATH=/nowhere",
                          builtProgram("docsource"), "run", app})
                .wait(),
            1);

  // The program ends with whoever runs it.
  ChildProcess sandboxed(command(app));
  EXPECT_EQ(sandboxed.ask("arguments"), "");
  kill(sandboxed.id(), SIGKILL);
  EXPECT_EQ(sandboxed.readLine(), "") << "nobody is left that holds its output";
}

TEST_F(SandboxedApplication, HasNoDataDirectoryThatIsNotItsOwn) {
  installSandboxed(app);
  fs::create_directories(dataOf(app).substr(0, dataOf(app).rfind('/')));
  fs::create_directory_symlink(installation_ / "Containers/Group", dataOf(app));
  EXPECT_EQ(ChildProcess(command(app)).wait(), 1);

  const std::string staged = installation_.staging() + "/bundle";
  makeBundle(staged, "../Group", builtProgram("sandboxed-consumer"));
  installation_.put(staged, bundleOf("com.example.climber"));
  EXPECT_EQ(ChildProcess(command("../Group")).wait(), 1);
}

}  // namespace
}  // namespace qx::test
