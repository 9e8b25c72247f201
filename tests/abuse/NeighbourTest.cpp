// A hostile user beside an honest one, on a machine with one platformd: he holds as many
// connections, descriptors, bytes and calls as he is let.

#include <sys/xattr.h>

#include "tests/abuse/Abuse.h"
#include "tests/abuse/Bystander.h"
#include "tests/abuse/ServedFileSystem.h"
#include "tests/support/Machine.h"

namespace qx::test {
namespace {

namespace fs = std::filesystem;

/// Everything that one user can have the service hold, until a file appears.
int hoard(const MachineUser& user, const std::string& stop) {
  const std::string trap = user.root() + "/trap";
  std::filesystem::create_directories(trap);
  Wire source = connectTo(coordinationService);
  source.call("addDocSource:providedItemsURL:completion:", {"trap", URL::fileURL(trap, true)});
  // Reads that nobody will ever answer.
  std::vector<Wire> readers;
  for (int i = 0; i < 4; ++i) {
    readers.push_back(connectTo(coordinationService));
    for (int item = 0; item < 1000; ++item) {
      const auto name = std::to_string(i) + "-" + std::to_string(item);
      readers.back().begin(coordinateReading, {URL::fileURL(trap + "/" + name)});
    }
  }
  const FileDescriptor null(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const std::vector<int> sixteen(16, null.get());
  const std::vector<std::uint8_t> begun{1, 0, 0, 0, 0};
  const std::vector<std::uint8_t> more(1 << 20, 0);
  std::vector<Wire> held;
  std::size_t next = 0;
  while (!std::filesystem::exists(stop)) {
    // Frames of 16 MiB that never end, with descriptors; dropped ones are replaced at once.
    const char* service = next % 2 == 0 ? coordinationService : sandboxService;
    Wire wire = connectTo(service);
    wire.sendBytes(begun, sixteen, MSG_DONTWAIT);
    wire.sendBytes(more, {}, MSG_DONTWAIT);
    if (held.size() < 2000) {
      held.push_back(std::move(wire));
    } else {
      held[next % held.size()] = std::move(wire);
    }
    ++next;
  }
  return 0;
}

TEST_F(MachineTest, AHostileUserHoldsUpNobodyElse) {
  Tally tally("reads beside a user who holds what he can");
  alice().start();
  const std::size_t count = tries(20000, 200);
  const std::string stop = machine_ / "stop";
  std::thread attack([&] { EXPECT_EQ(mallory().run([&] { return hoard(mallory(), stop); }), 0); });
  // Once he has begun to be refused, he has all that he gets.
  EXPECT_TRUE(platform_->logs("user " + std::to_string(mallory().number()) + " has too many"));
  EXPECT_EQ(alice().run([&] {
    const Value letter = URL::fileURL(alice().document("letter"));
    if (connectTo(coordinationService).call(coordinateReading, {letter}).outcome() != "success") {
      return 1;
    }
    Bystander bystander(connectTo(coordinationService));
    bystander.measure(coordinateReading, {letter}, count);
    const auto latency = bystander.finish();
    std::printf("%s\n", latency.text().c_str());
    // Every connection of her own is taken, too.
    for (int i = 0; i < 3; ++i) {
      if (connectTo(sandboxService).call(consumeExtension, {Bytes()}).outcome() !=
          "QXPOSIXErrorDomain 74") {
        return 2;
      }
    }
    return latency.failures == 0 && latency.isEven() ? 0 : 3;
  }),
            0);
  tally.tries += count;
  // She keeps her own provider, and he has not even slowed it to a stand.
  EXPECT_TRUE(alice().reads("plan"));
  const auto usage = Usage::of(platform_->id());
  tally.note = usage.text();
  std::ofstream(stop).flush();
  attack.join();
}

constexpr const char* addDocSource = "addDocSource:providedItemsURL:completion:";

std::string readWithin(const MachineUser& user, const std::string& path) {
  return user.output({"timeout", "20", "cat", path});
}

/// A child of this process that does one thing and is ended with this object.
class Doing {
 public:
  explicit Doing(const std::function<void()>& what) : process_(fork()) {
    if (process_ == 0) {
      what();
      _exit(0);
    }
  }
  Doing(const Doing&) = delete;
  Doing& operator=(const Doing&) = delete;
  ~Doing() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  pid_t process() const { return process_; }

 private:
  const pid_t process_;
};

/// Whether the kernel comes to keep a process waiting for an answer from somebody; for root.
bool isHeld(pid_t process) {
  return eventually([&] {
    const auto at = FileManager::readFile("/proc/" + std::to_string(process) + "/wchan");
    return at && (at->starts_with("fanotify") || at->starts_with("request_wait"));
  });
}

TEST_F(MachineTest, AFileSystemOfAUsersProgramHoldsUpNobodyElse) {
  if (!coordinatesEverybody()) GTEST_SKIP() << "needs CAP_SYS_ADMIN, to keep readers waiting";
  if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "needs /dev/fuse";
  alice().start();
  const std::string served = mallory().root() + "/served", tree = mallory().root() + "/tree";
  const std::string mounted = mallory().root() + "/mounted", over = mallory().root() + "/over";
  for (const auto& directory : {served, tree}) fs::create_directory(directory);
  mallory().give(mallory().root());
  std::optional<ServedFileSystem> files(std::in_place, served, mallory().number(), false);
  if (!files->isMounted()) GTEST_SKIP() << "needs the kernel's FUSE";
  std::optional<ServedFileSystem> another;
  std::thread hostile([&] {
    EXPECT_EQ(mallory().run([&] {
      Wire wire = connectTo(coordinationService);
      wire.call(addDocSource, {"served", URL::fileURL(served, true)});
      if (wire.call(addDocSource, {"tree", URL::fileURL(tree, true)}).outcome() != "success") {
        return 1;
      }
      const FileDescriptor file(open((tree + "/one").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
      if (fsetxattr(file.get(), "user.docsource.placeholder", "absent", 6, 0) != 0 ||
          ftruncate(file.get(), 1 << 20) != 0) {
        return 2;
      }
      std::ofstream(mallory().root() + "/ready").flush();
      if (!eventually([&] { return fs::exists(mounted); })) return 3;
      // A file of the one, and one that lies below the other by now.
      const Doing opening([&] { open((served + "/document").c_str(), O_RDONLY | O_CLOEXEC); });
      char byte = 0;
      const Doing reading([&] { (void)!pread(file.get(), &byte, 1, 0); });
      std::ofstream(mallory().root() + "/new") << opening.process() << " " << reading.process();
      fs::rename(mallory().root() + "/new", mallory().root() + "/doing");
      return eventually([&] { return fs::exists(over); }) ? 0 : 4;
    }),
              0);
  });
  EXPECT_TRUE(eventually([&] { return fs::exists(mallory().root() + "/ready"); }));
  files->hang();
  another.emplace(tree, mallory().number(), true);
  std::ofstream(mounted).flush();
  EXPECT_TRUE(eventually([&] { return fs::exists(mallory().root() + "/doing"); }));
  pid_t opening = 0, reading = 0;
  std::ifstream(mallory().root() + "/doing") >> opening >> reading;
  EXPECT_TRUE(isHeld(opening));
  EXPECT_TRUE(isHeld(reading));
  // What she asks for, what comes into her tree, and what she adds.
  EXPECT_EQ(readWithin(alice(), alice().document("plan")), alice().content("plan"));
  EXPECT_EQ(alice().run([&] {
    const std::string more = alice().root() + "/more";
    fs::create_directory(more);
    Wire wire = connectTo(coordinationService);
    return wire.call(addDocSource, {"more", URL::fileURL(more, true)}).outcome() == "success" ? 0
                                                                                              : 1;
  }),
            0);
  std::ofstream(over).flush();
  files.reset();
  another.reset();
  hostile.join();
}

TEST_F(MachineTest, NobodyTakesATreeByALinkThatIsPutThereLater) {
  if (!coordinatesEverybody()) GTEST_SKIP() << "needs CAP_SYS_ADMIN, to keep readers waiting";
  alice().start();
  const std::string bait = mallory().root() + "/bait", many = mallory().root() + "/many";
  fs::create_directory(bait);
  for (int i = 0; i < 10000; ++i) fs::create_directories(many + "/" + std::to_string(i));
  mallory().give(mallory().root());
  const std::string swapped = machine_ / "swapped";
  std::thread hostile([&] {
    EXPECT_EQ(mallory().run([&] {
      Wire wire = connectTo(coordinationService);
      // The second has been accepted, and waits for its turn to be marked.
      const auto first = wire.begin(addDocSource, {"many", URL::fileURL(many, true)});
      const auto second = wire.begin(addDocSource, {"bait", URL::fileURL(bait, true)});
      if (!eventually([&] { return fs::exists(swapped); })) return 1;
      wire.answer(first);
      wire.answer(second);
      return 0;
    }),
              0);
  });
  EXPECT_TRUE(platform_->logs("/bait/ of user"));
  fs::rename(bait, bait + ".old");
  fs::create_directory_symlink(alice().storage(), bait);
  std::ofstream(swapped).flush();
  hostile.join();
  EXPECT_EQ(readWithin(alice(), alice().document("plan")), alice().content("plan"));
}

}  // namespace
}  // namespace qx::test
