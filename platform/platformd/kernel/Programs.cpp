// Programs that do not get on with placeholders like all others.

#include "platform/platformd/kernel/Programs.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <utility>
#include <vector>

#include "platform/files/Places.h"
#include "platform/log/Log.h"
#include "platform/platformd/kernel/Beneath.h"
#include "platform/queue/WorkQueue.h"

namespace qx::kernel {
namespace {

constexpr const char* fileName = "programs.conf";
constexpr off_t largestFile = 65536;
constexpr std::size_t mostUsers = 1000;

std::string machineDirectory() {
  const auto& machine = Places::machineOverride();
  return machine ? *machine + "/etc" : "/etc/docsource";
}

/// Where a user's list is; empty for one who has no home.
std::string userDirectory(uid_t user) {
  if (!Places::servesMachine() && user == geteuid()) {
    const char* config = std::getenv("XDG_CONFIG_HOME");
    if (config && config[0] == '/') return std::string(config) + "/docsource";
    const char* home = std::getenv("HOME");
    if (home && home[0] == '/') return std::string(home) + "/.config/docsource";
  }
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found);
  return found && found->pw_dir[0] == '/' ? std::string(found->pw_dir) + "/.config/docsource" : "";
}

/// A regular file of the owner's, or root's, reached without a link once the links of the way to it
/// are resolved; bounded.
std::optional<std::string> readOwn(const std::string& directory, uid_t owner) {
  std::error_code problem;
  const auto resolved = std::filesystem::canonical(directory, problem).string();
  const FileDescriptor above = problem ? FileDescriptor() : openDirectoryStrictly(resolved);
  const FileDescriptor path = above ? openBeneath(above.get(), fileName, O_PATH) : FileDescriptor();
  struct stat status;
  if (!path || fstat(path.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      (status.st_uid != owner && status.st_uid != 0) || status.st_size > largestFile) {
    return std::nullopt;
  }
  const FileDescriptor file = reopen(path.get(), O_RDONLY);
  if (!file) return std::nullopt;
  std::string text(static_cast<std::size_t>(largestFile), '\0');
  std::size_t size = 0;
  while (size < text.size()) {
    const ssize_t count = ::read(file.get(), text.data() + size, text.size() - size);
    if (count <= 0) break;
    size += static_cast<std::size_t>(count);
  }
  text.resize(size);
  return text;
}

std::string_view trimmed(std::string_view text) {
  constexpr const char* blank = " \t\r";
  const auto begin = text.find_first_not_of(blank);
  if (begin == text.npos) return {};
  return text.substr(begin, text.find_last_not_of(blank) - begin + 1);
}

/// The file name of its executable; empty when it is gone.
std::string nameOf(pid_t process) {
  std::array<char, PATH_MAX> target{};
  const std::string link = "/proc/" + std::to_string(process) + "/exe";
  const ssize_t size = readlink(link.c_str(), target.data(), target.size());
  if (size <= 0) return {};
  std::string path(target.data(), static_cast<std::size_t>(size));
  constexpr std::string_view replaced = " (deleted)";
  if (path.ends_with(replaced)) path.resize(path.size() - replaced.size());
  return path.substr(path.rfind('/') + 1);
}

}  // namespace

const ProgramList& ProgramList::standard() {
  // packaging/programs.conf says the same.
  static const auto& list = *new ProgramList(parse(
      "whole-file tar\nwhole-file bsdtar\nwhole-file star\nwhole-file gtar\nwhole-file bsdcpio\n"
      "whole-file cp\nwhole-file mv\nwhole-file install\nwhole-file ginstall\nwhole-file grep\n"
      "whole-file qemu-img\n"
      "never-provide localsearch-3\nnever-provide localsearch-extractor-3\n"
      "never-provide tracker-miner-fs-3\nnever-provide tracker-extract-3\n"
      "never-provide baloo_file\nnever-provide baloo_file_extractor\n"
      "never-provide gnome-thumbnail-font\nnever-provide gdk-pixbuf-thumbnailer\n"
      "never-provide evince-thumbnailer\nnever-provide totem-video-thumbnailer\n"
      "never-provide ffmpegthumbnailer\nnever-provide tumblerd\n"
      "never-provide recollindex\nnever-provide updatedb\n",
      [](std::size_t) {}));
  return list;
}

ProgramList ProgramList::parse(std::string_view text,
                               const std::function<void(std::size_t)>& problem) {
  ProgramList list;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const auto end = std::min(text.find('\n'), text.size());
    const auto line = trimmed(text.substr(0, std::min(end, text.find('#'))));
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.empty()) continue;
    const auto space = std::min(line.find_first_of(" \t"), line.size());
    const auto word = line.substr(0, space);
    const auto name = trimmed(line.substr(space));
    const bool isWhole = word == "whole-file";
    if ((!isWhole && word != "never-provide") || name.empty() || name.find('/') != name.npos) {
      problem(number);
      continue;
    }
    list.kinds_[std::string(name)] = isWhole ? ProgramKind::wholeFile : ProgramKind::neverProvide;
  }
  return list;
}

ProgramKind ProgramList::kindOf(const std::string& name) const {
  const auto kind = kinds_.find(name);
  return kind == kinds_.end() ? ProgramKind::ordinary : kind->second;
}

std::shared_ptr<Programs> Programs::start() {
  auto programs = std::make_shared<Programs>();
  programs->follow(machine);
  if (!Places::servesMachine()) programs->learn(geteuid());
  return programs;
}

void Programs::learn(uid_t user) {
  {
    const std::lock_guard lock(mutex_);
    if (known_.size() >= mostUsers || !known_.insert(user).second) return;
  }
  if (!Places::servesMachine() && user == geteuid()) return follow(user);
  // Who a user is may take asking around the network, and a home directory may be slow.
  WorkQueue::global().async([self = shared_from_this(), user] { self->follow(user); });
}

void Programs::follow(uid_t user) {
  const std::string directory = user == machine ? machineDirectory() : userDirectory(user);
  if (directory.empty()) return;
  auto watch = DirectoryWatch::start(
      directory, [weak = weak_from_this(), user, directory](const std::string& name) {
        const auto self = weak.lock();
        if (self && (name.empty() || name == fileName)) self->read(user, directory);
      });
  {
    const std::lock_guard lock(mutex_);
    lists_[user].watch = std::move(watch);
  }
  read(user, directory);
}

void Programs::read(uid_t user, const std::string& directory) {
  const auto text = readOwn(directory, user == machine ? geteuid() : user);
  std::optional<ProgramList> programs;
  if (text) {
    programs = ProgramList::parse(*text, [&](std::size_t line) {
      DS_LOG("[NOTICE] Line %d of %@/programs.conf says nothing.", line, directory);
    });
    DS_LOG("[INFO] Read %@/programs.conf.", directory);
  }
  const std::lock_guard lock(mutex_);
  lists_[user].programs = std::move(programs);
}

ProgramKind Programs::kindOf(pid_t process, uid_t user) {
  learn(user);
  const std::string name = nameOf(process);
  const std::lock_guard lock(mutex_);
  if (const auto own = lists_.find(user); own != lists_.end() && own->second.programs) {
    const auto kind = own->second.programs->kindOf(name);
    if (kind != ProgramKind::ordinary) return kind;
  }
  const auto common = lists_.find(machine);
  const bool isThere = common != lists_.end() && common->second.programs;
  return (isThere ? *common->second.programs : ProgramList::standard()).kindOf(name);
}

}  // namespace qx::kernel
