// `docsource doctor`: one sentence about everything that can be wrong, in the order in which it
// matters: who does not run, what the kernel and the file system cannot, what is installed and does
// not work.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include "docsource/placeholder.h"
#include "platform/coordination/CoordinationState.h"
#include "platform/device/KeyState.h"
#include "platform/files/FileManager.h"
#include "platform/files/InodeMark.h"
#include "platform/files/Places.h"
#include "tools/docsource/Accounts.h"
#include "tools/docsource/BundleInstaller.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Location.h"
#include "tools/docsource/Output.h"
#include "tools/docsource/Units.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

constexpr const char* coordinationService = "com.veltro.FileCoordination";
constexpr const char* brokerService = "com.veltro.DocSource";
constexpr const char* markAttribute = "user.docsource.placeholder";

/// What was found, for a person.
class Report {
 public:
  void good(const std::string& subject, const std::string& sentence) {
    add("ok", subject, sentence);
  }
  /// Works, and is less than it could be.
  void note(const std::string& subject, const std::string& sentence) {
    add("note", subject, sentence);
  }
  void wrong(const std::string& subject, const std::string& sentence) {
    isWell_ = false;
    add("wrong", subject, sentence);
  }
  int print(const Arguments& arguments) {
    const int printed =
        answer(arguments.json, {{"well", isWell_}, {"findings", std::move(findings_)}}, text_);
    return isWell_ ? printed : operationFailed;
  }

 private:
  void add(const std::string& state, const std::string& subject, const std::string& said) {
    const auto sentence = inFamiliarWords(said);
    findings_.emplace_back(
        qx::Dictionary{{"state", state}, {"subject", subject}, {"text", sentence}});
    text_ += state + std::string(7 - state.size(), ' ') + onOneLine(subject + ": " + sentence);
    text_ += "\n";
  }

  qx::Array findings_;
  std::string text_;
  bool isWell_ = true;
};

void lookAtBroker(const Arguments& arguments, Report& report) {
  docsource::Client client(arguments.timeout);
  const auto socket = socketOf(brokerService);
  const auto awake = client.wakeUp();
  if (!awake) {
    return report.wrong("docsourced",
                        "It does not answer at " + socket + " (" + awake.error().description() +
                            "). Start it: systemctl --user start docsourced.service; what it says "
                            "is in journalctl --user -t docsourced");
  }
  report.good("docsourced", "It answers at " + socket + ".");
  const auto listing = client.providers();
  if (!listing) {
    return report.wrong("this program",
                        listing.error().description() + " Its bundle, docsource.app in " +
                            qx::Places::machineBundles().back() +
                            "/Applications, must name this very file; was it copied?");
  }
  for (const auto& installed :
       installedBundles(qx::BundleKind::extension, qx::BundleStanding::user)) {
    if (!installed.bundle || problemOfStarting(*installed.bundle)) continue;
    const auto& identifier = installed.bundle->identifier;
    const auto isListed = [&](const docsource::ProviderInfo& one) {
      return one.identifier == identifier && one.documentStorageURL;
    };
    if (std::any_of(listing->begin(), listing->end(), isListed)) continue;
    report.wrong(identifier,
                 "docsourced does not have it among its providers. Why, its log says: "
                 "journalctl --user -t docsourced");
  }
}

/// Whether nothing is wrong with the unit.
bool lookAtUnit(ServiceManager manager, const std::string& name, const Unit& unit, Report& report) {
  const bool isUsers = manager == ServiceManager::user;
  const std::string command = isUsers ? ": systemctl --user " : ", as root: systemctl ";
  const bool hasFailed = unit.activeState == "failed";
  if (hasFailed) {
    report.wrong(name, "It failed (" + unit.result + "). To see its log: journalctl " +
                           (isUsers ? "--user " : "") + "-u " + name + ". To start it again" +
                           command + "restart " + name);
  }
  const bool isDisabled = unit.fileState == "disabled";
  if (!isDisabled && !unit.fileState.starts_with("masked")) return !hasFailed;
  report.note(name, "It is " + unit.fileState + ", so nobody starts it. To have it started" +
                        command + (isDisabled ? "enable " : "unmask ") + name);
  return false;
}

/// The units that come with the packages. What does not run is told of by those who look for the
/// services; here why, and whether it will after the next start.
void lookAtUnits(Report& report) {
  if (std::getenv("DOCSOURCE_ROOT")) return;  // a world that no service manager starts
  constexpr std::pair<ServiceManager, const char*> units[] = {
      {ServiceManager::system, "platformd.service"},
      {ServiceManager::system, "platformd-coordination.socket"},
      {ServiceManager::system, "platformd-sandbox.socket"},
      {ServiceManager::user, "docsourced.service"},
      {ServiceManager::user, "docsourced.socket"},
      {ServiceManager::user, "docsource-notify.service"},
  };
  bool isWell = true, isThere = false;
  for (const auto& [manager, name] : units) {
    const auto unit = unitCalled(manager, name);
    if (!unit) continue;
    isThere = true;
    isWell = lookAtUnit(manager, name, *unit, report) && isWell;
  }
  if (isThere && isWell) report.good("units", "They are enabled, and none has failed.");
}

void lookAtPlatform(Report& report) {
  const auto socket = socketOf(coordinationService);
  if (!QXConduitConnection::connectToService(coordinationService)) {
    return report.wrong("platformd", "It does not answer at " + socket +
                                         ", so nobody brings content in or watches over "
                                         "placeholders. Start it, as root: systemctl start "
                                         "platformd.service");
  }
  report.good("platformd", "It answers at " + socket + ".");
  switch (qx::readCoordinationMechanism().value_or(qx::CoordinationMechanism::cooperative)) {
    case qx::CoordinationMechanism::access:
      return report.good("kernel", "Every program waits for the content that it reads.");
    case qx::CoordinationMechanism::open:
      return report.note(
          "kernel",
          "Programs wait when they open a document, for all of it: the kernel cannot "
          "tell of single accesses (Linux 6.14 can).");
    case qx::CoordinationMechanism::cooperative:
      return report.note(
          "kernel",
          "platformd may not watch files (that needs CAP_SYS_ADMIN): programs cannot "
          "open a document whose content is not here. Bring it in with docsource "
          "get, or copy it with docsource read.");
  }
}

void lookAtLock(Report& report) {
  if (!qx::readKeyState().unlockedSinceBoot) {
    report.wrong("device",
                 "It was not unlocked since it was started, and until then there are no "
                 "providers. Whoever unlocks it says so with docsource device unlock.");
  }
}

/// What documents need of their file system: holes, attributes, space.
void lookAtFileSystem(Report& report) {
  std::error_code failed;
  auto place = fs::path(qx::Places::groupContainers());
  while (!fs::exists(place, failed) && place.has_relative_path()) place = place.parent_path();
  const auto where = place.string();
  const qx::FileDescriptor file(::open(where.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  struct stat status {};
  constexpr off_t size = 1 << 20U;
  if (!file || ::ftruncate(file.get(), size) != 0 || ::fstat(file.get(), &status) != 0) {
    return report.wrong("file system",
                        "No file can be made in " + where + " (" + std::strerror(errno) + ").");
  }
  if (status.st_blocks * 512 >= size) {
    return report.wrong("file system", "The file system of " + where + " has no sparse files.");
  }
  if (::fsetxattr(file.get(), "user.docsource.test", "1", 1, 0) != 0) {
    return report.wrong("file system", "The file system of " + where +
                                           " has no extended attributes of users; without them "
                                           "there can be no placeholders.");
  }
  struct statvfs space {};
  if (::statvfs(where.c_str(), &space) != 0) return;
  const auto left = static_cast<std::uint64_t>(space.f_bavail) * space.f_frsize;
  constexpr std::uint64_t little = 200'000'000;
  if (left < little) {
    return report.wrong("file system", "Only " + sizeText(left) +
                                           " are left on the file system of " + where +
                                           ". To give some back: docsource evict DIRECTORY");
  }
  report.good("file system", "The file system of " + where + " is fit for documents, and has " +
                                 sizeText(left) + " left.");
}

void lookAtBundles(Report& report) {
  std::size_t count = 0;
  for (const auto kind : {qx::BundleKind::application, qx::BundleKind::extension}) {
    for (const auto standing : {qx::BundleStanding::machine, qx::BundleStanding::user}) {
      for (const auto& installed : installedBundles(kind, standing)) {
        if (!installed.bundle) {
          report.wrong(installed.path, "It is broken: " + installed.bundle.error().description() +
                                           " Install it anew or remove it.");
        } else if (const auto problem = problemOfStarting(*installed.bundle)) {
          report.wrong(installed.bundle->identifier, *problem + " Install it anew or remove it.");
        } else {
          ++count;
        }
      }
    }
  }
  report.good("bundles", (count == 1 ? "One is" : std::to_string(count) + " are") +
                             " fit for use (docsource bundles).");
}

/// What a state of an account's health means.
std::string sentenceOf(const std::string& state) {
  if (state == "wrong-remote") return "What is there now is not what was there.";
  if (state == "needs-confirmation") return "It removes nothing until that is confirmed.";
  if (state == "unauthorised") return "It is not let in.";
  return "It is " + state + ".";
}

void lookAtAccounts(const Arguments& arguments, Report& report) {
  const auto all = installedAccounts();
  if (all.empty()) report.good("accounts", "There are none (docsource add --help).");
  for (const auto& account : all) {
    auto process = AccountProcess::of(account);
    using Health = docsource::Result<std::tuple<std::optional<qx::Dictionary>>>;
    const auto asked = process ? process->ask<qx::Dictionary>(
                                     [](DSAccount& each, auto completion) {
                                       each.healthCompletion(std::move(completion));
                                     },
                                     arguments.timeout)
                               : Health(process.error());
    if (!asked) {
      report.wrong("account " + account.name, asked.error().description());
      continue;
    }
    const auto health = std::get<0>(*asked).value_or(qx::Dictionary());
    const auto* state = qx::find<std::string>(health, "state");
    const auto* reason = qx::find<std::string>(health, "reason");
    const auto* failures = qx::find<std::int64_t>(health, "failed");
    std::error_code failed;
    const auto link = linkFor(account.name);
    const auto more = reason ? " " + *reason : std::string();
    if (fs::read_symlink(link, failed) != account.storage) {
      report.note("account " + account.name, "Its documents are in " + account.storage + ", and " +
                                                 link + " does not lead there.");
    }
    if (state && *state == "ok" && failures && *failures > 0) {
      report.wrong("account " + account.name,
                   (*failures == 1 ? "One item has" : std::to_string(*failures) + " items have") +
                       " failed. Which, and why: docsource status -r \"" + link + "\"");
    } else if (state && *state == "ok") {
      report.good("account " + account.name, "It is in agreement with " + account.source + ".");
    } else {
      report.wrong("account " + account.name, sentenceOf(state ? *state : "silent") + more + " " +
                                                  remedyFor(account, state ? *state : ""));
    }
  }
}

/// Some of the documents of which the same is to be said.
class Named {
 public:
  void add(std::string path) {
    if (++count_ <= named) paths_ += (paths_.empty() ? "" : ", ") + std::move(path);
  }
  bool isEmpty() const { return count_ == 0; }
  std::string text() const {
    return paths_ + (count_ > named ? " and " + std::to_string(count_ - named) + " more" : "");
  }

 private:
  static constexpr std::size_t named = 3;
  std::string paths_;
  std::size_t count_ = 0;
};

/// Whether it has the form of a mark (docsource/placeholder.h).
bool isMark(std::string_view mark) {
  const auto isNumber = [](std::string_view word) {
    return !word.empty() && std::all_of(word.begin(), word.end(),
                                        [](unsigned char c) { return std::isdigit(c) != 0; });
  };
  std::vector<std::string_view> words;
  for (std::size_t begin = 0; begin <= mark.size();) {
    const auto end = std::min(mark.find(' ', begin), mark.size());
    words.push_back(mark.substr(begin, end - begin));
    begin = end + 1;
  }
  if (words.front() == "placeholder") return true;
  return words.front() == "providing" && words.size() >= 3 && isNumber(words[1]) &&
         isNumber(words[2]);
}

/// The marks of placeholders below the directories of documents.
class Marks {
 public:
  void lookAt(const std::string& directory) {
    std::error_code failed;
    fs::recursive_directory_iterator entry(directory, fs::directory_options::skip_permission_denied,
                                           failed);
    for (const fs::recursive_directory_iterator end; !failed && entry != end;
         entry.increment(failed)) {
      if (!fs::is_regular_file(entry->symlink_status(failed))) continue;
      if (entry->path().filename().string().starts_with(docsource::Placeholder::sideName)) continue;
      lookAtFile(entry->path());
    }
  }

  void tell(Report& report) const {
    if (!damaged_.isEmpty()) {
      report.wrong("marks", "The mark of " + damaged_.text() +
                                " is not one of a placeholder. To have the content brought in "
                                "while that is possible: docsource get");
    }
    if (!copied_.isEmpty()) {
      report.wrong("marks", "The mark of " + copied_.text() +
                                " was made for another file, and there are holes in this one, "
                                "from which programs read zeros. If those are not its content, "
                                "restore it from where the document lives, or from a backup.");
    }
    if (!unmarked_.isEmpty()) {
      report.note("marks", "There is no mark on " + unmarked_.text() +
                               ", and next to nothing was ever written to it, so programs read "
                               "zeros. If those are not its content, restore it from where the "
                               "document lives, or from a backup.");
    }
    if (damaged_.isEmpty() && copied_.isEmpty() && unmarked_.isEmpty()) {
      report.good("marks", std::to_string(placeholders_) + " of " + std::to_string(files_) +
                               " documents are placeholders, and are marked correctly.");
    }
  }

 private:
  void lookAtFile(const std::string& path) {
    struct stat status {};
    std::array<char, 1024> value{};
    if (::lstat(path.c_str(), &status) != 0) return;
    ++files_;
    const auto size = ::lgetxattr(path.c_str(), markAttribute, value.data(), value.size());
    const int problem = size < 0 ? errno : 0;
    const auto inode = qx::inodeNameOf(AT_FDCWD, path);
    if (!inode) return;  // it has gone meanwhile
    const bool mayHaveHoles = status.st_blocks * 512 < status.st_size;
    if (problem == ENODATA) {
      if (mayHaveHoles && isHollow(path)) unmarked_.add(path);
    } else if (problem == ERANGE) {
      damaged_.add(path);
    } else if (problem != 0) {
      placeholders_ += problem == EACCES ? 1 : 0;  // its owner cannot read it, as nobody can
    } else {
      const std::string_view mark(value.data(), static_cast<std::size_t>(size));
      const auto marked = qx::markedInode(mark, *inode);
      if (!isMark(mark)) {
        damaged_.add(path);
      } else if (marked != qx::MarkedInode::other) {
        ++placeholders_;
      } else if (mayHaveHoles && hasHole(path, status.st_size)) {
        copied_.add(path);
      }
    }
  }

  // Files that are no placeholders are opened without waiting for anybody. What a file occupies
  // says little where the file system compresses.
  static qx::FileDescriptor opened(const std::string& path) {
    return qx::FileDescriptor(
        ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  }
  static bool hasHole(const std::string& path, off_t size) {
    const auto file = opened(path);
    const auto hole = file ? ::lseek(file.get(), 0, SEEK_HOLE) : size;
    return hole >= 0 && hole < size;
  }
  /// As a placeholder is, whose first block is there.
  static bool isHollow(const std::string& path) {
    constexpr off_t firstBlock = 8192;
    const auto file = opened(path);
    return file && ::lseek(file.get(), firstBlock, SEEK_DATA) < 0 && errno == ENXIO &&
           ::lseek(file.get(), 0, SEEK_END) > firstBlock;
  }

  Named damaged_, copied_, unmarked_;
  std::size_t files_ = 0, placeholders_ = 0;
};

void lookAtMarks(const Arguments& arguments, Report& report) {
  std::set<fs::path> directories;
  const auto add = [&](const std::string& directory) {
    std::error_code failed;
    auto whole = fs::canonical(directory, failed);
    if (!failed) directories.insert(std::move(whole));
  };
  for (const auto& account : installedAccounts()) add(account.storage);
  const auto listing = docsource::Client(arguments.timeout).providers();
  for (const auto& provider : listing ? *listing : std::vector<docsource::ProviderInfo>()) {
    const auto& url = provider.documentStorageURL;
    if (const auto path = url ? docsource::pathOfURL(*url) : std::nullopt) add(*path);
  }
  Marks marks;
  for (const auto& directory : directories) marks.lookAt(directory);
  if (!directories.empty()) marks.tell(report);
}

void lookAtSandbox(Report& report) {
  if (!programCalled("bwrap")) {
    return report.note("sandbox",
                       "docsource run needs bubblewrap (bwrap), which is not installed.");
  }
  long most = 1;
  std::ifstream("/proc/sys/user/max_user_namespaces") >> most;
  if (most == 0) {
    return report.note("sandbox",
                       "docsource run needs user namespaces, and this machine allows "
                       "none (user.max_user_namespaces).");
  }
  report.good("sandbox", "docsource run can make one.");
}

}  // namespace

int doctor(const Arguments& arguments) {
  Report report;
  lookAtUnits(report);
  lookAtBroker(arguments, report);
  lookAtPlatform(report);
  lookAtLock(report);
  lookAtFileSystem(report);
  lookAtBundles(report);
  lookAtAccounts(arguments, report);
  lookAtMarks(arguments, report);
  lookAtSandbox(report);
  return report.print(arguments);
}

}  // namespace tool
