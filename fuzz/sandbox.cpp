// What is read of a user's own files when a sandbox is concerned: the directory of the key as it
// was handed over, what was taken back, and who a sandbox is. The first byte says which.

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <fstream>

#include "fuzz/Fuzz.h"
#include "platform/identity/ProcessDirectory.h"
#include "platform/identity/SandboxRecord.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/SandboxKey.h"
#include "platform/sandbox/TakenBackExtensions.h"
#include "tests/support/TemporaryRoot.h"

using namespace qx;
using fuzz::require;
namespace fs = std::filesystem;

namespace {

void write(const std::string& path, std::string_view text, mode_t mode) {
  fs::remove_all(path);
  std::ofstream(path, std::ofstream::binary) << text;
  chmod(path.c_str(), mode);
}

/// A document, a token for it, and a directory that is handed over with a copy of the right key.
struct World {
  World() {
    fuzz::muteLog();
    fs::create_directory(handedOver);
    std::ofstream(document) << "x";
    token = SandboxIssueFileExtension(sandboxExtensionRead, document, 0).value_or("");
    std::ifstream file(Places::sandboxKey(), std::ifstream::binary);
    key.assign(std::istreambuf_iterator<char>(file), {});
    require(!token.empty() && !key.empty(), "a file gets a token");
    directory = std::make_shared<const FileDescriptor>(
        open(handedOver.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  }
  static World& shared() {
    static auto& world = *new World;
    return world;
  }

  const std::string handedOver = test::temporaryRoot() + "/handed-over";
  const std::string document = test::temporaryRoot() + "/document";
  std::string token, key;
  SharedDescriptor directory;
};

/// A file of that name, of whatever kind; whether it is one that may be believed.
bool place(const std::string& path, std::string_view text, std::uint8_t kind) {
  fs::remove_all(path);
  switch (kind % 8) {
    case 0:
      fs::create_symlink(Places::sandboxKey(), path);
      return false;
    case 1:
      fs::create_directory(path);
      return false;
    case 2:
      require(mkfifo(path.c_str(), 0600) == 0, "a pipe is made");
      return false;
    case 3:
      return false;
    default:
      write(path, text, kind & 8U ? 0600 | (kind >> 5U) : 0600);
      return (kind & 8U) == 0 || kind >> 5U == 0;
  }
}

std::string takenBackText(fuzz::Input& input) {
  const bool isOfThisBoot = input.byte() % 4 != 0;
  return (isOfThisBoot ? bootIdentifier() + "\n" : "") + std::string(fuzz::textOf(input.rest()));
}

void useDirectory(fuzz::Input& input) {
  World& world = World::shared();
  const auto kinds = std::pair(input.byte(), input.byte());
  std::string key = world.key;
  if (input.byte() % 2 == 0) key = fuzz::textOf(input.take(input.byte() % 70));
  const bool hasKey = place(world.handedOver + "/sandbox.key", key, kinds.first);
  const bool mayHaveKey = hasKey && key.size() == world.key.size();
  place(world.handedOver + "/sandbox.taken-back", takenBackText(input), kinds.second);

  const auto store = SandboxKeyStore::at(world.directory, geteuid());
  require(store.ok(), "the own directory is taken");
  const auto read = store->readKey();
  require(read.has_value() == mayHaveKey, "a key is believed that nobody else can use");
  const auto takenBack = TakenBackExtensions::read(*store);
  const auto file = consumeSandboxExtension(world.token, *store);
  require(!file || (mayHaveKey && key == world.key), "the key that signed it opens a document");
  require(!file || takenBack, "nothing is opened while nobody knows what was taken back");
  require(!SandboxKeyStore::at(world.directory, geteuid() + 1), "the directory is the owner's");
}

/// However odd the file, what it forbids stays forbidden when something is added.
void takeBack(fuzz::Input& input) {
  World& world = World::shared();
  const FileIdentity file{input.byte(), input.byte()};
  const BootTime issued = input.word();
  const bool isWritten = input.byte() % 16 == 0;
  const std::string path = "/" + std::string(fuzz::textOf(input.take(input.byte() % 16)));
  write(Places::runtimeDirectory() + "/sandbox.taken-back", takenBackText(input), 0600);
  const auto store = SandboxKeyStore::own();
  auto known = TakenBackExtensions::read(*store);
  if (!known) {
    require(!consumeSandboxExtension(world.token), "what cannot be read forbids everything");
    if (!isWritten) return;
    require(!SandboxTakeBackFileExtensions(world.document), "more can be taken back");
    require(TakenBackExtensions::read(*store)->include(issued, path, file), "all was taken back");
    return;
  }
  const bool wasForbidden = known->include(issued, path, file);
  known->add(path, file);
  require(known->include(issued, path, file), "what is taken back is");
  known->add("/other", std::nullopt);
  if (isWritten) {
    require(!known->write(), "it can be written");
    auto again = TakenBackExtensions::read(*store);
    require(again.ok(), "what was written is understood");
    known = std::move(again);
  }
  require(known->include(issued, path, file), "what is taken back stays so");
  require(!wasForbidden || known->include(issued, path, file), "nothing comes back");
}

/// A process in a user namespace of its own, and its record, which this process holds.
struct Sandboxed {
  Sandboxed() {
    std::array<int, 2> pipes{};
    require(pipe(pipes.data()) == 0, "pipes are to be had");
    const FileDescriptor ready(pipes[0]);
    FileDescriptor told(pipes[1]);
    const pid_t child = fork();
    if (child == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const char answer = unshare(CLONE_NEWUSER) == 0 ? 'y' : 'n';
      (void)!::write(told.get(), &answer, 1);
      for (;;) pause();
    }
    char answer = 'n';
    require(::read(ready.get(), &answer, 1) == 1 && answer == 'y', "namespaces are to be had");
    process = ProcessDirectory::open(child);
    fs::create_directory(Places::sandboxRecords());
    record.reset(open(path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    require(flock(record.get(), LOCK_EX) == 0, "the record is held");
  }
  std::string path() const {
    return Places::sandboxRecords() + "/" + std::to_string(process->userNamespace()->inode);
  }

  std::optional<ProcessDirectory> process;
  FileDescriptor record;
};

void nameSandbox(std::string_view text) {
  static const auto& sandboxed = *new Sandboxed;
  require(ftruncate(sandboxed.record.get(), 0) == 0, "the record is emptied");
  require(pwrite(sandboxed.record.get(), text.data(), text.size(), 0) ==
              static_cast<ssize_t>(text.size()),
          "the record is written");
  const auto found = surroundingsOf(*sandboxed.process);
  require(found && found->isSandbox, "who is in a sandbox is in one, whatever its record says");
  const auto line = text.substr(0, text.find('\n'));
  const bool isName = line.size() < text.size() && !line.empty() && line.size() < 4096;
  require(found->application.has_value() == isName, "a record names an application in one line");
  require(!isName || *found->application == line, "the application is the one that is named");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  World::shared();
  fuzz::Input input(data, size);
  switch (input.byte() % 3) {
    case 0:
      useDirectory(input);
      break;
    case 1:
      takeBack(input);
      break;
    default:
      nameSandbox(fuzz::textOf(input.rest()));
  }
  return 0;
}
