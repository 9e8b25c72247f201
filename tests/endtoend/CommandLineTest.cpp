// The command-line tool as a process: what it prints, what it ends with, and what it leaves in the
// root.

#include <stdlib.h>
#include <sys/xattr.h>

#include <atomic>

#include "platform/base/Text.h"
#include "platform/identity/Bundles.h"
#include "tests/endtoend/Broker.h"

namespace qx::test {
namespace {

namespace fs = std::filesystem;

const char* const provider = "com.example.provider";
const char* const toolIdentifier = "com.veltro.docsource.tool";

std::int64_t blocks(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status.st_blocks;
}

/// The value behind "name: " on a line of its own.
std::string answer(const std::string& output, const std::string& name) {
  const auto begin = ("\n" + output).find("\n" + name + ": ");
  if (begin == std::string::npos) return "";
  const auto value = begin + name.size() + 2;
  return output.substr(value, output.find('\n', value) - value);
}

class CommandLine : public Broker {
 protected:
  /// Runs the tool to its end; on a terminal where one is named, which then gets the errors.
  Outcome run(std::vector<std::string> arguments, const std::string& terminal = "") const {
    const std::string output = installation_ / "output", errors = installation_ / "errors";
    arguments.insert(
        arguments.begin(),
        {"env", "-C", directory_, "DOCSOURCE_ROOT=" + installation_.root(), "OUTPUT=" + output,
         "ERRORS=" + (terminal.empty() ? errors : terminal), "sh", "-c",
         "exec \"$@\" < /dev/null > \"$OUTPUT\" 2> \"$ERRORS\"", "sh", builtProgram("docsource")});
    const int status = ChildProcess(std::move(arguments)).wait();
    return {status, contentOf(output), terminal.empty() ? contentOf(errors) : ""};
  }

  /// The output of a run that must succeed and say nothing else.
  std::string ask(std::vector<std::string> arguments) const {
    const auto outcome = run(std::move(arguments));
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(outcome.errors, "");
    return outcome.output;
  }

  /// Expects a run that fails, with this among what it says.
  void fails(std::vector<std::string> arguments, const std::string& reason, int status = 1) const {
    const auto outcome = run(std::move(arguments));
    EXPECT_EQ(outcome.status, status) << reason;
    EXPECT_EQ(outcome.output, "");
    EXPECT_NE(outcome.errors.find(reason), std::string::npos) << outcome.errors;
  }

  void grant(const Value& list) const {
    fs::create_directories(fs::path(installation_.accessControlFile()).parent_path());
    writeList(installation_.accessControlFile(), list);
  }

  /// An application bundle outside the root's folders, to be installed.
  std::string makeApplication(const std::string& name, const std::string& identifier,
                              const std::string& program = "/bin/cat") {
    const std::string path = installation_.staging() + "/" + name;
    makeBundle(path, identifier, program);
    return path;
  }

  std::vector<std::string> applications() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(installation_ / "Applications")) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  /// Where the tool runs.
  std::string directory_ = "/";
};

TEST_F(CommandLine, RefusesWhatIsNoCommand) {
  for (const std::vector<std::string>& wrong : std::vector<std::vector<std::string>>{
           {},
           {"frobnicate"},
           {"wake-up", "more"},
           {"read"},
           {"device"},
           {"device", "explode"},
           {"start", "/x", "--provider", "p"},
           {"run"},
           {"run", "com.example.app", "argument"},
           {"status"},
           {"evict"},
           {"extend-bookmark", "/x", "--provider", "p", "--consumer", "c"},
           {"wake-up", "--timeout", "0"},
           {"wake-up", "--timeout", "soon"},
           {"wake-up", "--timeout", "nan"}}) {
    SCOPED_TRACE(describe(Array(wrong.begin(), wrong.end())));
    fails(wrong, "\n", 2);
  }
  EXPECT_EQ(run({"device", "explode"}).errors.find("There is no command \"device explode\"."), 0U);
  EXPECT_NE(ask({"--help"}).find("extend-sandbox"), std::string::npos);
  EXPECT_EQ(run({"acounts"}).errors.find("There is no command \"acounts\"; is it \"accounts\"?"),
            0U);
  EXPECT_NE(run({"add", "webdav", "x", "y", "--password", "z"})
                .errors.find("is it --password-command or --password-file?\nUsage: docsource add "),
            std::string::npos);
  EXPECT_EQ(ask({"help", "read"}), ask({"read", "--help"}));
  EXPECT_NE(ask({"help", "read"}).find("--timeout SECONDS"), std::string::npos);
  EXPECT_EQ(ask({"--version"}).find("docsource "), 0U);
  EXPECT_EQ(ask({"--complete", "start", "--consumer", ""}).find(toolIdentifier), 0U);
  EXPECT_EQ(ask({"--complete", "--json", "device", "un"}),
            "status\tShow whether the device is locked, and how programs are coordinated\n"
            "lock\tLock the device\nunlock\tUnlock the device\n");
}

TEST_F(CommandLine, TellsThatAServiceIsAway) {
  for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
           {"wake-up"}, {"providers", "--json"}, {"consume", "token"}, {"read", "/etc/passwd"}}) {
    fails(command, "cannot be reached", 3);
  }
  const auto error = run({"wake-up", "--json"}).errors;
  EXPECT_EQ(
      error.find(R"({"error": {"code": 2, "domain": "DocSourceLibraryErrorDomain", "next": ")"), 0U)
      << error;
  EXPECT_NE(error.find(installation_.root() + "/run/com.veltro.DocSource"), std::string::npos);
  const auto found = run({"doctor"});
  EXPECT_EQ(found.status, 1);
  EXPECT_EQ(found.output.find("wrong  docsourced: "), 0U) << found.output;
}

TEST_F(CommandLine, CarriesOutTheItemRequests) {
  const auto installed = installation_.installProvider(
      provider, {{"items", Dictionary{{"50% of über.txt", "half"}, {"other.txt", "other"}}}});
  start();
  ASSERT_TRUE(isRegistered(installed));
  directory_ = installed.storage();
  ask({"wake-up"});
  EXPECT_EQ(ask({"wake-up", "--json"}), "{}\n");

  const auto storage = URL::fileURL(installed.storage(), true).absoluteString();
  EXPECT_EQ(ask({"providers", "--json"}),
            R"({"providers": [{"documentStorageURL": ")" + storage +
                R"(", "providerIdentifier": "com.example.provider"}]})" + "\n");
  EXPECT_NE(ask({"providers"}).find(std::string(provider) + "  " + installed.storage()),
            std::string::npos);

  const auto request = [&](const std::string& command, const std::string& document) {
    return run({command, document, "--provider", provider, "--consumer", "com.example.app"});
  };
  EXPECT_EQ(request("start", "other.txt")
                .errors.find("DSErrorDomain 3: The operation is not permitted.\n"),
            0U);

  const auto url = installed.url("50% of über.txt").absoluteString();
  const auto extended = request("extend-sandbox", "./50% of über.txt");
  EXPECT_NE(answer(extended.output, "token"), "") << extended.errors;
  EXPECT_NE(extended.errors.find("no bundle with the identifier com.example.app"),
            std::string::npos);
  EXPECT_EQ(answer(extended.output, "sibling"), installed.document(".50% of über.txt"));
  EXPECT_EQ(answer(extended.output, "sibling token"), "none");

  // A link is no document; whoever names one means what it leads to.
  const std::string link = installation_ / "link";
  fs::create_symlink(installed.document("other.txt"), link);
  const auto behindLink = request("extend-sandbox", link);
  EXPECT_NE(answer(behindLink.output, "token"), "none") << behindLink.errors;
  EXPECT_NE(answer(behindLink.output, "token"), "");
  EXPECT_EQ(answer(behindLink.output, "sibling"), installed.document(".other.txt"));

  // The same document as relative path, as absolute path and as URL.
  EXPECT_EQ(request("placeholder", "50% of über.txt").status, 0);
  EXPECT_EQ(request("start", installed.document("50% of über.txt")).status, 0);
  EXPECT_EQ(request("stop", url).status, 0);
  const auto calls = installed.callLines();
  for (const std::string operation : {vendorPlaceholder, vendorStart, vendorStop}) {
    EXPECT_EQ(std::count(calls.begin(), calls.end(), operation + " " + url), 1) << operation;
  }
}

TEST_F(CommandLine, TellsWhatDocumentsOccupyAndGivesItBack) {
  const std::string content(100'000, 'c');
  const auto origin = installation_.staging();
  std::ofstream(origin + "/a.txt") << content;
  const auto storage = installation_.installExampleProvider(origin);
  start();
  ASSERT_TRUE(eventually([&] { return fs::exists(storage + "/a.txt"); }));
  directory_ = storage;
  const auto path = storage + "/a.txt";
  const auto state = [&](const std::string& name) {
    const auto occupied = blocks(path) * 512;
    // A placeholder takes a block, and perhaps one for attributes; content takes 25.
    EXPECT_TRUE(name == "placeholder" ? occupied <= 8192 : occupied >= 100'000) << occupied;
    EXPECT_EQ(ask({"status", "a.txt", "--json"}),
              R"({"documents": [{"occupied": )" + std::to_string(occupied) + R"(, "path": ")" +
                  path + R"(", "size": 100000, "state": ")" + name + "\"}]}\n");
  };
  const auto request = [&](const std::string& command) {
    ask({command, "a.txt", "--provider", "com.example.provider", "--consumer", toolIdentifier});
  };
  request("extend-sandbox");
  state("placeholder");
  request("start");
  state("present");

  // Given back only where nothing speaks against it, and the reason is told.
  const auto kept = [&](const std::string& reason) {
    fails({"evict", "a.txt"}, reason);
    state("present");
  };
  {
    std::ifstream reader(path);
    kept("has it open");
  }
  const auto time = fs::last_write_time(path);
  fs::last_write_time(path, time + std::chrono::seconds(1));
  kept("it was changed");
  fs::last_write_time(path, time);
  const auto before = blocks(path);
  const auto evicted = ask({"evict", URL::fileURL(path).absoluteString(), "--json"});
  EXPECT_EQ(evicted.find("{\"freed\": " + std::to_string((before - blocks(path)) * 512)), 0U)
      << evicted;
  state("placeholder");
  EXPECT_EQ(ask({"evict", "a.txt"}), "0 B given back\n");

  // Doctor tells a mark that is as it should be from a damaged one, another file's, and none.
  const auto doctorSaysOfMarks = [&](const std::string& said) {
    const auto text = run({"doctor"}).output;
    EXPECT_NE(text.find(said), std::string::npos) << text;
  };
  const char* const mark = "user.docsource.placeholder";
  doctorSaysOfMarks("\nok     marks: 1 of 1 ");
  for (const auto& [value, said] :
       {std::pair<std::string, std::string>("placehold", " is not one of a placeholder"),
        {"placeholder inode:1", " was made for another file"}}) {
    ASSERT_EQ(::setxattr(path.c_str(), mark, value.data(), value.size(), 0), 0);
    doctorSaysOfMarks("wrong  marks: The mark of " + path + said);
  }
  ASSERT_EQ(::removexattr(path.c_str(), mark), 0);
  doctorSaysOfMarks("note   marks: There is no mark on " + path);
  ASSERT_EQ(::setxattr(path.c_str(), mark, "placeholder", 11, 0), 0);

  // Several at a time, the good ones in spite of the bad one.
  std::ofstream(storage + "/b") << "b";
  const auto several = run({"status", "a.txt", "none", "b"});
  EXPECT_EQ(several.status, 1);
  EXPECT_EQ(several.output.find("STATE        SIZE    OCCUPIED  DOCUMENT\n"
                                "placeholder  100000  "),
            0U)
      << several.output;
  EXPECT_NE(several.output.find("present      1       4096      " + storage + "/b\n"),
            std::string::npos)
      << several.output;
  EXPECT_NE(several.errors.find("none"), std::string::npos);
  fails({"evict", origin + "/a.txt"}, "belongs to no provider");
}

TEST_F(CommandLine, ShowsOnATerminalHowFarADocumentHasArrived) {
  const auto installed = installation_.installProvider(provider);
  start();
  ASSERT_TRUE(isRegistered(installed));
  const auto path = installed.document("A.txt");
  ask({"extend-sandbox", path, "--provider", provider, "--consumer", toolIdentifier});
  fs::resize_file(path, 1 << 20U);
  ASSERT_EQ(::setxattr(path.c_str(), "user.docsource.placeholder", "placeholder", 11, 0), 0);

  const FileDescriptor screen(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
  ASSERT_TRUE(screen && ::grantpt(screen.get()) == 0 && ::unlockpt(screen.get()) == 0);
  std::array<char, 200> terminal{};
  ASSERT_EQ(::ptsname_r(screen.get(), terminal.data(), terminal.size()), 0);
  const FileDescriptor held(::open(terminal.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  std::string shown;
  const auto shows = [&](const std::function<bool()>& condition) {
    return eventually([&] {
      std::array<char, 1000> bytes{};
      const auto count = ::read(screen.get(), bytes.data(), bytes.size());
      if (count > 0) shown.append(bytes.data(), static_cast<std::size_t>(count));
      return condition();
    });
  };
  const auto line = [&](const std::string& text) {
    return [&shown, text] { return shown.find(text) != std::string::npos; };
  };

  installed.behave({{vendorStart, "hold"}});
  Outcome outcome;
  std::thread tool([&] {
    outcome =
        run({"start", path, "--provider", provider, "--consumer", toolIdentifier}, terminal.data());
  });
  EXPECT_TRUE(shows(line("[------------------------------]   0%  0 B of 1.0 MB"))) << shown;
  std::fstream(path, std::ofstream::in | std::ofstream::out) << std::string(1 << 19U, 'x');
  EXPECT_TRUE(shows(line("[###############---------------]  50%  524.3 kB of 1.0 MB"))) << shown;
  installed.behave({});
  tool.join();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, "");
  EXPECT_TRUE(shows([&] { return shown.ends_with("\r\033[K"); })) << shown;
}

TEST_F(CommandLine, CopiesDocumentsAsTheyAre) {
  const auto installed = installation_.installProvider(provider);
  start();
  startPlatform();
  ASSERT_TRUE(isRegistered(installed));
  ASSERT_TRUE(platform_->logs("for doc source " + std::string(provider)));
  directory_ = installed.storage();

  // More than one piece, not a whole number of pieces nor of groups of three bytes.
  std::string bytes;
  for (int i = 0; bytes.size() < 400'001; ++i) bytes += static_cast<char>(i * 7);
  std::ofstream("/" + installed.document("B c.txt")) << bytes;
  const auto extended =
      ask({"extend-sandbox", "B c.txt", "--provider", provider, "--consumer", toolIdentifier});
  const auto token = answer(extended, "token");
  EXPECT_TRUE(ask({"consume", token}) == bytes);
  const std::vector<std::uint8_t> raw(bytes.begin(), bytes.end());
  EXPECT_TRUE(ask({"consume", token, "--json"}) == R"({"content": ")" + base64Encode(raw) +
                                                       R"(", "encoding": "base64", "size": 400001})"
                                                       "\n");
  fails({"consume", token + "0"}, "");

  // A coordinated read goes through the provider, which fails here once.
  installed.behave({{vendorStart, Array{"error once"}}});
  fails({"read", "A.txt"}, "ScriptedProvider 7: error once");
  EXPECT_EQ(ask({"read", "A.txt"}), "content of item/a");
  EXPECT_EQ(installed.calls(vendorStart), 2U);
  fails({"read", "missing.txt"}, "");
  fails({"read", ".", "--json"}, "Is a directory");

  // A connection to a service does not get the number of an output that is closed.
  ChildProcess closed({"env", "-C", directory_, "DOCSOURCE_ROOT=" + installation_.root(), "sh",
                       "-c", "exec \"$@\" >&- 2>&-", "sh", builtProgram("docsource"), "read",
                       "A.txt"});
  EXPECT_EQ(closed.wait(), 1);
}

TEST_F(CommandLine, MakesAndResolvesBookmarks) {
  const std::string item = "a \"b\"\n\x01 c\\d é\u202e";
  const auto installed =
      installation_.installProvider(provider, {{"items", Dictionary{{"A.txt", item}}}});
  grant(Dictionary{{"com.example.gone",
                    Dictionary{{toolIdentifier, Dictionary{{"AllowedItemIDs", Array{"x"}}}}}}});
  start();
  ASSERT_TRUE(isRegistered(installed));
  directory_ = installed.storage();

  const auto bookmark = "docsource:" + std::string(provider) + "/" + item;
  EXPECT_EQ(ask({"bookmark", "A.txt"}), bookmark + "\n");
  EXPECT_EQ(ask({"bookmark", "A.txt", "--json"}),
            R"({"bookmark": "docsource:com.example.provider/a \"b\"\u000a\u0001 c\\d é)"
            "\u202e\"}\n");
  fails({"resolve", bookmark}, "DSErrorDomain 3: The operation is not permitted.\n");
  EXPECT_EQ(ask({"extend-bookmark", "A.txt", "--consumer", toolIdentifier}), bookmark + "\n");
  const auto resolved = ask({"resolve", bookmark});
  EXPECT_EQ(answer(resolved, "document"), installed.document("A.txt"));
  EXPECT_NE(answer(resolved, "token"), "none");
  // An item is one line of the table whatever its identifier.
  const auto table = ask({"grants"});
  EXPECT_NE(
      table.find("a \"b\"\\x0a\\x01 c\\d é\\xe2\\x80\\xae  " + installed.document("A.txt") + "\n"),
      std::string::npos)
      << table;

  // Taken back, by its path.
  ask({"revoke", "A.txt", "--provider", provider, "--consumer", toolIdentifier});
  EXPECT_EQ(ask({"grants"}).find(provider), std::string::npos);
  fails({"resolve", bookmark}, "DSErrorDomain 3");
  fails({"revoke", "A.txt", "--provider", "other", "--consumer", toolIdentifier}, "no such grant");

  installed.behave({{vendorIdentifier, "absent"}});
  fails({"bookmark", "A.txt"}, "its provider " + std::string(provider) + " gave no identifier");
  fails({"bookmark", "/etc/passwd"}, "belongs to no provider");
  const auto nothing = run({"bookmark", "/etc/passwd", "--json"});
  EXPECT_EQ(nothing.output, "{\"bookmark\": null}\n");
  EXPECT_EQ(nothing.status, 1);

  // Granted, but its provider is not installed: that is never answered.
  fails({"--timeout", "0.2", "resolve", "docsource:com.example.gone/x"}, "did not answer in time");
}

TEST_F(CommandLine, InstallsAndRemovesBundles) {
  const auto source = makeApplication("App.app", "com.example.app");
  fs::create_directory(source + "/lib");
  fs::create_symlink("../program", source + "/lib/link");
  fs::create_symlink("/nowhere", source + "/dangling");
  fs::permissions(source + "/lib", fs::perms(0555));
  const auto place = installation_ / "Applications/App.app";
  EXPECT_EQ(ask({"install", source + "/"}), "installed com.example.app in " + place + "\n");
  EXPECT_EQ(fs::read_symlink(place + "/lib/link"), "../program");
  EXPECT_EQ(fs::read_symlink(place + "/dangling"), "/nowhere");
  EXPECT_EQ(contentOf(place + "/program"), contentOf("/bin/cat"));
  EXPECT_EQ(fs::status(place + "/program").permissions(), fs::status("/bin/cat").permissions());

  // The identifier, not the name of the directory, says what is replaced.
  EXPECT_EQ(ask({"install", makeApplication("New.app", "com.example.app", "/bin/ls")}),
            "replaced com.example.app in " + place + "\n");
  EXPECT_EQ(contentOf(place + "/program"), contentOf("/bin/ls"));
  EXPECT_FALSE(fs::exists(place + "/lib"));
  EXPECT_EQ(applications(), std::vector<std::string>{"App.app"});

  // What lies broken in its place goes.
  fs::create_directory(installation_ / "Applications/Broken.app");
  EXPECT_NE(ask({"bundles"}).find("(broken)"), std::string::npos);
  ask({"install", makeApplication("Broken.app", "com.example.whole")});
  const auto whole = installation_ / "Applications/Broken.app";
  const auto tool = fs::path(builtProgram("")).parent_path().parent_path() /
                    "lib/docsource/Applications/docsource.app";
  const auto described = [](const std::string& path, const std::string& executable,
                            const std::string& identifier, const std::string& owner) {
    return R"({"executable": ")" + path + "/" + executable + R"(", "identifier": ")" + identifier +
           R"(", "kind": "application", "owner": ")" + owner + R"(", "path": ")" + path + "\"}";
  };
  EXPECT_EQ(
      ask({"bundles", "--json"}),
      "{\"bundles\": [" +
          described(tool, "../../../../bin/docsource", "com.veltro.docsource.tool", "machine") +
          ", " + described(place, "program", "com.example.app", "user") + ", " +
          described(whole, "program", "com.example.whole", "user") + "]}\n");
  // What an application wants of the world it is given by a word, and only what it had before
  // without one.
  const auto wanting = [&](const Dictionary& wishes) {
    const auto bundle = makeApplication("App.app", "com.example.app");
    auto info = bundleInfo("com.example.app", "program");
    info.insert(wishes.begin(), wishes.end());
    writeList(bundle + "/Info.plist", info);
    return bundle;
  };
  const Dictionary sound{{"QXSandboxSound", true}},
      more{{"QXSandboxSound", true}, {"QXSandboxSessionBusNames", Array{"org.example.Bus"}}};
  fails({"install", wanting(sound)}, "(sound)");
  ask({"install", wanting(sound), "--yes"});
  ask({"install", wanting(sound)});
  fails({"install", wanting(more)}, "(bus:org.example.Bus)");
  fails({"install", wanting({{"QXSandboxSound", "loud"}})}, "QXSandboxSound");
  EXPECT_NE(ask({"bundles"}).find("com.example.app also gets sound."), std::string::npos);
  EXPECT_NE(ask({"bundles", "--json"}).find(R"("world": ["sound"])"), std::string::npos);
  // What comes with the programs is nobody's to replace or remove.
  fails({"install", makeApplication("Tool.app", "com.veltro.docsource.tool")}, "of the machine");
  fails({"uninstall", "com.veltro.docsource.tool"}, "machine's");

  EXPECT_EQ(ask({"uninstall", "com.example.app"}), "removed " + place + "\n");
  EXPECT_EQ(applications(), std::vector<std::string>{"Broken.app"});
  fails({"uninstall", "com.example.app"}, "com.example.app");
}

TEST_F(CommandLine, RefusesBundlesThatWouldNotWork) {
  const auto installed = makeApplication("App.app", "com.example.app");
  ask({"install", installed});
  const auto withoutExecutable = makeApplication("App.app", "com.example.app");
  fs::remove(withoutExecutable + "/program");
  const auto withoutInfo = makeApplication("App.app", "com.example.app");
  std::ofstream(withoutInfo + "/Info.plist") << "<plist version=\"1.0\"><dict>";
  const auto withPipe = makeApplication("App.app", "com.example.app");
  ASSERT_EQ(::mkfifo((withPipe + "/pipe").c_str(), 0600), 0);
  // Good where it is, but what its link leads to does not come along.
  const auto leaning = makeApplication("App.app", "com.example.app");
  fs::rename(leaning + "/program", leaning + "/../outside");
  fs::create_symlink("../outside", leaning + "/program");
  for (const auto& broken :
       {withoutExecutable, withoutInfo, withPipe, leaning,
        makeApplication("App.bundle", "com.example.app"), std::string("/nowhere.app"),
        makeApplication("App.app", "com.example.another")}) {
    SCOPED_TRACE(broken);
    fails({"install", broken}, "\n");
    EXPECT_EQ(applications(), std::vector<std::string>{"App.app"});
  }
  EXPECT_EQ(contentOf(installation_ / "Applications/App.app/Info.plist"),
            contentOf(installed + "/Info.plist"));
}

TEST_F(CommandLine, ReplacesABundleInOneStep) {
  const auto first = makeApplication("App.app", "com.example.app");
  const auto second = makeApplication("App.app", "com.example.app", "/bin/ls");
  ask({"install", first});
  const auto place = installation_ / "Applications/App.app";
  std::atomic<bool> finished = false;
  std::atomic<int> looks = 0;
  std::optional<std::string> problem;
  std::thread observer([&] {
    while (!finished && !problem) {
      const auto found = readBundle(BundleKind::application, place);
      if (!found) problem = found.error().text();
      ++looks;
    }
  });
  for (int i = 0; i < 10; ++i) ask({"install", i % 2 == 0 ? second : first});
  finished = true;
  observer.join();
  EXPECT_EQ(problem, std::nullopt);
  EXPECT_GT(looks, 10);
}

TEST_F(CommandLine, TellsTheSystemOfTheDevicesLock) {
  EXPECT_EQ(ask({"device", "status", "--json"}),
            "{\"lockState\": 3, \"unlockedSinceBoot\": true}\n");
  const auto state = installation_ / "run/key-state";
  ask({"device", "lock"});
  EXPECT_EQ(contentOf(state), "lock-state=0 unlocked-since-boot=1\n");

  std::ofstream(state) << "lock-state=1 unlocked-since-boot=0\n";
  EXPECT_EQ(ask({"device", "lock"}), "locked (lock state 0), not unlocked since boot\n");
  EXPECT_EQ(contentOf(state), "lock-state=0 unlocked-since-boot=0\n");

  // A daemon that waits for the first unlock is told of it.
  const auto installed = installation_.installProvider(provider);
  start();
  EXPECT_EQ(ask({"providers", "--json"}), "{\"providers\": []}\n");
  EXPECT_EQ(ask({"device", "unlock"}), "unlocked (lock state 3), unlocked since boot\n");
  EXPECT_EQ(contentOf(state), "lock-state=3 unlocked-since-boot=1\n");
  EXPECT_TRUE(isRegistered(installed));
}

}  // namespace
}  // namespace qx::test
