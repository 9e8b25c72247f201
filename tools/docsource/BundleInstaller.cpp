// Bundles are put in place by renaming. A new one is copied to a hidden directory in the folder it
// goes to, which the system does not take for a bundle, synced, and renamed; where another one is
// to be replaced the two are exchanged (renameat2(2), RENAME_EXCHANGE). What is taken away is
// renamed to a hidden name before it is removed.

#include "tools/docsource/BundleInstaller.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <system_error>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/files/FileManager.h"
#include "platform/files/Places.h"
#include "platform/plist/PropertyList.h"
#include "tools/docsource/Location.h"

namespace tool {
namespace {

namespace fs = std::filesystem;
using qx::BundleKind;
using qx::Error;
using qx::FileDescriptor;

constexpr std::array kinds{BundleKind::application, BundleKind::extension};

/// Where a user's bundles are put.
std::string folderOf(BundleKind kind) {
  return qx::bundleFolders(kind, qx::BundleStanding::user).front();
}

Error failure(const std::string& path, int errnum = errno) {
  return qx::fileError(errnum, qx::URL::fileURL(path));
}
Error refusal(const std::string& what) {
  return {std::string(QXStandardErrorDomain), qx::fileUnknownError, what};
}

/// With the mode it is to have; not followed when it is a link.
FileDescriptor open(const std::string& path, int flags, mode_t mode = 0) {
  return FileDescriptor(::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, mode));
}

std::optional<Error> sync(const std::string& directory) {
  const auto descriptor = open(directory, O_RDONLY | O_DIRECTORY);
  if (!descriptor || ::fsync(descriptor.get()) != 0) return failure(directory);
  return std::nullopt;
}

std::optional<Error> writeAll(int file, const std::string& path, const char* data,
                              std::size_t size) {
  while (size > 0) {
    const ssize_t count = ::write(file, data, size);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return failure(path);
    data += count;
    size -= static_cast<std::size_t>(count);
  }
  return std::nullopt;
}

/// Permissions and times of the original, on the disk. A copy is nobody's set-user-ID program, and
/// its owner can remove it.
std::optional<Error> finish(int descriptor, const struct stat& status, const std::string& path) {
  const std::array times{status.st_atim, status.st_mtim};
  const mode_t mode = (status.st_mode & 0777U) | (S_ISDIR(status.st_mode) ? 0700U : 0U);
  if (::fchmod(descriptor, mode) != 0 || ::futimens(descriptor, times.data()) != 0 ||
      ::fsync(descriptor) != 0) {
    return failure(path);
  }
  return std::nullopt;
}

std::optional<Error> copyFile(const std::string& from, const std::string& to) {
  const auto source = open(from, O_RDONLY | O_NONBLOCK);
  struct stat status;
  if (!source || ::fstat(source.get(), &status) != 0) return failure(from);
  if (!S_ISREG(status.st_mode)) return refusal(from + " is not a regular file.");
  const auto target = open(to, O_WRONLY | O_CREAT | O_EXCL, 0600);
  if (!target) return failure(to);
  std::array<char, 1U << 16U> buffer{};
  while (true) {
    const ssize_t count = ::read(source.get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return failure(from);
    if (count == 0) return finish(target.get(), status, to);
    const auto size = static_cast<std::size_t>(count);
    if (auto error = writeAll(target.get(), to, buffer.data(), size)) return error;
  }
}

std::optional<Error> copyLink(const std::string& from, const std::string& to) {
  std::error_code failed;
  fs::copy_symlink(from, to, failed);
  if (failed) return failure(from, failed.value());
  return std::nullopt;
}

/// Into a directory that is there.
std::optional<Error> copyContents(const std::string& from, const std::string& to);

std::optional<Error> copyDirectory(const std::string& from, const std::string& to) {
  if (::mkdir(to.c_str(), 0700) != 0) return failure(to);
  return copyContents(from, to);
}

std::optional<Error> copyEntry(const std::string& from, const std::string& to) {
  struct stat status;
  if (::lstat(from.c_str(), &status) != 0) return failure(from);
  if (S_ISLNK(status.st_mode)) return copyLink(from, to);
  if (S_ISDIR(status.st_mode)) return copyDirectory(from, to);
  return copyFile(from, to);
}

std::optional<Error> copyContents(const std::string& from, const std::string& to) {
  struct stat status;
  const auto source = open(from, O_RDONLY | O_DIRECTORY);
  if (!source || ::fstat(source.get(), &status) != 0) return failure(from);
  std::error_code failed;
  for (fs::directory_iterator entry(from, failed), end; !failed && entry != end;
       entry.increment(failed)) {
    const auto name = "/" + entry->path().filename().string();
    if (auto error = copyEntry(from + name, to + name)) return error;
  }
  if (failed) return failure(from, failed.value());
  const auto target = open(to, O_RDONLY | O_DIRECTORY);
  if (!target) return failure(to);
  return finish(target.get(), status, to);
}

/// A hidden directory beside the bundles, removed with what is in it at the end.
class HiddenDirectory {
 public:
  static qx::Result<HiddenDirectory> make(const std::string& folder, const std::string& name) {
    std::string path = folder + "/." + name + ".XXXXXX";
    if (!::mkdtemp(path.data())) return failure(path);
    return HiddenDirectory(path);
  }
  HiddenDirectory(HiddenDirectory&& other) noexcept : path_(std::exchange(other.path_, {})) {}
  HiddenDirectory(const HiddenDirectory&) = delete;
  ~HiddenDirectory() {
    if (path_.empty()) return;
    if (auto error = qx::FileManager::removeTree(path_)) {
      std::fprintf(stderr, "%s remains: %s\n", path_.c_str(), error->text().c_str());
    }
  }
  const std::string& path() const { return path_; }

 private:
  explicit HiddenDirectory(std::string path) : path_(std::move(path)) {}
  std::string path_;
};

/// Puts `from` at `to`; what was there is afterwards at `from`. True when there was something.
qx::Result<bool> put(const std::string& from, const std::string& to) {
  while (true) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
      return false;
    }
    if (errno != EEXIST) return failure(to);
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_EXCHANGE) == 0) {
      return true;
    }
    // Somebody took the old one away meanwhile: there is nothing to exchange it with.
    if (errno != ENOENT) return failure(to);
  }
}

struct Source {
  BundleKind kind;
  std::string path;
  std::string name;
};

qx::Result<Source> sourceAt(const std::string& argument) {
  std::error_code failed;
  const fs::path path = fs::canonical(absolutePath(argument), failed);
  if (failed) return failure(argument, failed.value());
  const std::string name = path.filename().string();
  for (const auto kind : kinds) {
    if (name.size() > qx::bundleSuffix(kind).size() && name.ends_with(qx::bundleSuffix(kind)) &&
        !name.starts_with('.')) {
      return Source{kind, path.string(), name};
    }
  }
  return refusal(path.string() +
                 " is named neither like an application (.app) nor like a provider "
                 "extension (.docext).");
}

/// Whether a bundle that came with the programs has that identifier.
bool isOfMachine(const std::string& identifier) {
  return std::any_of(kinds.begin(), kinds.end(), [&](BundleKind kind) {
    const auto bundles = installedBundles(kind, qx::BundleStanding::machine);
    return std::any_of(bundles.begin(), bundles.end(), [&](const InstalledBundle& installed) {
      return installed.bundle && installed.bundle->identifier == identifier;
    });
  });
}

/// Where the bundle goes.
qx::Result<std::string> placeFor(const Source& source, const std::string& identifier) {
  const std::string usual = folderOf(source.kind) + "/" + source.name;
  std::optional<std::string> other;
  for (const auto& installed : installedBundles(source.kind, qx::BundleStanding::user)) {
    if (!installed.bundle) continue;
    if (installed.bundle->identifier == identifier) return installed.path;
    if (installed.path == usual) other = installed.bundle->identifier;
  }
  if (other) return refusal(usual + " is the bundle of " + *other + "; uninstall that first.");
  return usual;
}

/// Of a broken bundle, as far as that can be read.
qx::Dictionary infoOf(const std::string& path) {
  std::error_code failed;
  const auto file = path + "/Info.plist";
  if (!fs::is_regular_file(file, failed)) return {};
  const auto list = qx::PropertyList::readFile(file);
  const auto* info = list ? list->as<qx::Dictionary>() : nullptr;
  return info ? *info : qx::Dictionary();
}

}  // namespace

std::string InstalledBundle::identifier() const {
  const auto* found = qx::find<std::string>(info, "QXBundleIdentifier");
  return found ? *found : "";
}

std::vector<InstalledBundle> installedBundles(BundleKind kind, qx::BundleStanding standing) {
  std::vector<InstalledBundle> bundles;
  for (const auto& folder : qx::bundleFolders(kind, standing)) {
    std::set<std::string> paths;
    std::error_code failed;
    for (fs::directory_iterator entry(folder, failed), end; !failed && entry != end;
         entry.increment(failed)) {
      const auto name = entry->path().filename().string();
      if (name.ends_with(qx::bundleSuffix(kind)) && !name.starts_with('.')) {
        paths.insert(entry->path());
      }
    }
    for (const auto& path : paths) {
      auto bundle = qx::readBundle(kind, path);
      auto info = bundle ? bundle->info : infoOf(path);
      bundles.push_back({path, std::move(bundle), std::move(info)});
    }
  }
  return bundles;
}

std::optional<std::string> problemOfStarting(const qx::Bundle& bundle) {
  const auto& program = bundle.executable;
  std::error_code failed;
  if (!fs::is_regular_file(program, failed)) {
    return "Its program " + program + " is not there.";
  }
  if (::access(program.c_str(), X_OK) != 0)
    return "Its program " + program + " cannot be executed.";
  std::ifstream file(program, std::ifstream::binary);
  std::string line;
  if (!std::getline(file, line) || !line.starts_with("#!")) return std::nullopt;
  // The interpreter of a script (execve(2)).
  const auto begin = std::min(line.find_first_not_of(" \t", 2), line.size());
  const auto interpreter = line.substr(begin, line.find_first_of(" \t\r", begin) - begin);
  if (::access(interpreter.c_str(), X_OK) == 0) return std::nullopt;
  return "Its program " + program + " takes " + interpreter + ", which is not there.";
}

qx::Result<Installation> installBundle(const std::string& argument, const MayBe& mayBe) {
  const auto source = sourceAt(argument);
  if (!source) return source.error();
  const auto original = qx::readBundle(source->kind, source->path);
  if (!original) return original.error();
  if (isOfMachine(original->identifier)) {
    return refusal("A bundle of the machine has the identifier " + original->identifier + ".");
  }
  if (const auto problem = problemOfStarting(*original)) return refusal(*problem);
  const auto place = placeFor(*source, original->identifier);
  if (!place) return place.error();

  const std::string folder = folderOf(source->kind);
  if (auto error = qx::FileManager::createDirectory(folder)) return *error;
  const auto hidden = HiddenDirectory::make(folder, source->name);
  if (!hidden) return hidden.error();
  if (auto error = copyContents(source->path, hidden->path())) return *error;
  // A link that leads out of the bundle may lead nowhere from here.
  const auto copy = qx::readBundle(source->kind, hidden->path());
  if (!copy) return copy.error();
  const auto before = qx::readBundle(source->kind, *place);
  if (auto refused = mayBe ? mayBe(*copy, before ? &*before : nullptr) : std::nullopt) {
    return *refused;
  }

  const auto replaced = put(hidden->path(), *place);
  if (!replaced) return replaced.error();
  if (auto error = sync(folder)) return *error;
  const auto installed = qx::readBundle(source->kind, *place);
  if (!installed) return installed.error();
  return Installation{*installed, *replaced};
}

qx::Result<std::vector<std::string>> uninstallBundles(const std::string& identifier) {
  std::vector<std::string> gone;
  for (const auto kind : kinds) {
    for (const auto& installed : installedBundles(kind, qx::BundleStanding::user)) {
      if (identifier.empty() || installed.identifier() != identifier) continue;
      const auto hidden = HiddenDirectory::make(folderOf(kind), "uninstalled");
      if (!hidden) return hidden.error();
      if (::rename(installed.path.c_str(), (hidden->path() + "/bundle").c_str()) != 0) {
        return failure(installed.path);
      }
      if (auto error = sync(folderOf(kind))) return *error;
      gone.push_back(installed.path);
    }
  }
  if (gone.empty() && isOfMachine(identifier)) {
    return refusal("The bundle with the identifier " + identifier + " is the machine's.");
  }
  if (gone.empty()) {
    return refusal("No bundle with the identifier " + identifier + " is installed.");
  }
  return gone;
}

}  // namespace tool
