// The net under placeholders where nobody can keep readers waiting.

#include "platform/platformd/kernel/CooperativeGuard.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <utility>
#include <vector>

#include "platform/files/FileManager.h"
#include "platform/files/InodeMark.h"
#include "platform/log/Log.h"
#include "platform/platformd/kernel/Beneath.h"
#include "platform/platformd/kernel/Placeholder.h"
#include "platform/queue/Reactor.h"

namespace qx::kernel {
namespace {

constexpr const char* fileName = "/concealed";
constexpr mode_t permissions = 07777;
constexpr std::uint32_t ofEntries =
    IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB | IN_MODIFY;
constexpr off_t blockUnit = 512;
constexpr const char* markName = "user.docsource.placeholder";
/// That the kernel gives of a file (XATTR_LIST_MAX).
constexpr std::size_t mostNames = 65536;

}  // namespace

bool isHiddenFile(const std::string& path, uid_t user) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == user &&
         (status.st_mode & permissions) == 0;
}

bool isHiddenPlaceholder(int file, const struct stat& status) {
  if (!S_ISREG(status.st_mode) || (status.st_mode & permissions) != 0) return false;
  std::string names(mostNames, '\0');
  const ssize_t size = listxattr(procPath(file).c_str(), names.data(), names.size());
  // Each name ends with a zero byte.
  return size > 0 && ('\0' + names.substr(0, static_cast<std::size_t>(size)))
                             .find('\0' + std::string(markName) + '\0') != std::string::npos;
}

class CooperativeGuard::Input final : public ReactorHandler {
 public:
  explicit Input(std::weak_ptr<CooperativeGuard> guard) : guard_(std::move(guard)) {}
  static void begin(const std::shared_ptr<CooperativeGuard>& guard) {
    auto input = std::make_shared<Input>(guard);
    const int descriptor = guard->inotify_.descriptor();
    // Armed only once its number is known to ready().
    input->source_ = Reactor::shared().add(descriptor, 0, input);
    Reactor::shared().arm(input->source_, descriptor, EPOLLIN);
  }
  void ready(std::uint32_t /*events*/) override {
    const auto guard = guard_.lock();
    if (!guard) return;
    guard->queue_->sync([&] { guard->readEvents(); });
    Reactor::shared().arm(source_, guard->inotify_.descriptor(), EPOLLIN);
  }

 private:
  const std::weak_ptr<CooperativeGuard> guard_;
  Reactor::SourceID source_ = 0;
};

std::shared_ptr<CooperativeGuard> CooperativeGuard::start(FileDescriptor state) {
  auto guard = std::make_shared<CooperativeGuard>(std::move(state));
  if (guard->inotify_.descriptor() >= 0) Input::begin(guard);
  return guard;
}

CooperativeGuard::CooperativeGuard(FileDescriptor state) : state_(std::move(state)) {
  const auto text = state_ ? FileManager::readFile(procPath(state_.get()) + fileName)
                           : Result<std::string>(std::string());
  std::istringstream lines(text ? *text : std::string());
  std::string inode;
  unsigned mode = 0;
  while (lines >> inode >> std::oct >> mode)
    modes_[inode] = static_cast<mode_t>(mode) & permissions;
}

bool CooperativeGuard::write() const {
  if (!state_) return true;
  std::ostringstream text;
  for (const auto& [inode, mode] : modes_) text << inode << " " << std::oct << mode << "\n";
  const auto error = FileManager::replaceFile(procPath(state_.get()) + fileName, text.str());
  if (error) DS_LOG("[ERROR] Cannot remember the permissions of placeholders. Error: %@", *error);
  return !error;
}

void CooperativeGuard::docSourceAdded(const DocSource& source, std::function<void()> onWatched) {
  queue_->async([self = shared_from_this(), source, onWatched = std::move(onWatched)] {
    std::error_code problem;
    const auto path =
        std::filesystem::canonical(source.directory.path().value_or("/"), problem).string();
    if (!problem) self->look(path);
    onWatched();
  });
}

void CooperativeGuard::look(const std::string& top) {
  std::vector<std::string> open{top};
  while (!open.empty()) {
    const std::string path = std::move(open.back());
    open.pop_back();
    const FileDescriptor directory = openDirectoryStrictly(path);
    struct stat status;
    if (!directory || fstat(directory.get(), &status) != 0 || status.st_uid != geteuid()) continue;
    // The directory that is open, not what its name may lead to by now.
    auto watch = inotify_.watch(procPath(directory.get()), ofEntries);
    if (watch) {
      const int number = watch.number();
      watches_[number] = {path, std::move(watch)};
    }
    eachEntry(directory.get(), [&](const char* name) {
      const FileDescriptor file = openBeneath(directory.get(), name, O_PATH);
      struct stat its;
      if (!file || fstat(file.get(), &its) != 0) return;
      if (S_ISDIR(its.st_mode)) open.push_back(path + "/" + name);
      if (S_ISREG(its.st_mode)) consider(file.get(), its, false);
    });
  }
}

void CooperativeGuard::consider(int file, const struct stat& status, bool isClosed) {
  const auto name = status.st_uid == geteuid() ? inodeNameOf(file) : std::nullopt;
  if (!name) return;
  const std::string inode = markWord(*name);
  const auto known = modes_.find(inode);
  if ((status.st_mode & permissions) != 0) {
    if (!Placeholder::isOne(file, status)) {
      if (known != modes_.end()) modes_.erase(known);
      return;
    }
    modes_[inode] = status.st_mode & permissions;
    if (write()) chmod(procPath(file).c_str(), 0);
    return;
  }
  // Its attributes cannot be read any more; what it occupies when it is closed tells that it was
  // filled.
  const bool isFilled =
      isClosed && status.st_blocks * blockUnit >= status.st_size && status.st_size > 0;
  if (known == modes_.end() || !isFilled || status.st_size <= status.st_blksize) return;
  if (chmod(procPath(file).c_str(), known->second) != 0) return;
  struct stat now;
  if (fstat(file, &now) == 0 && Placeholder::isOne(file, now)) {
    chmod(procPath(file).c_str(), 0);  // the provider is not done with it
    return;
  }
  modes_.erase(known);
  write();
}

void CooperativeGuard::readEvents() {
  for (const auto& event : inotify_.read()) {
    if (event.isOverflow()) {
      std::vector<std::string> all;
      for (const auto& [number, watch] : watches_) all.push_back(watch.first);
      for (const auto& path : all) look(path);
      return;
    }
    const auto watch = watches_.find(event.watch);
    if (watch == watches_.end()) continue;
    if (event.mask & IN_IGNORED) {
      watches_.erase(watch);
      continue;
    }
    if (event.name.empty()) continue;
    const std::string directory = watch->second.first;
    if (event.mask & IN_ISDIR) {
      if (event.mask & (IN_CREATE | IN_MOVED_TO)) look(directory + "/" + event.name);
      continue;
    }
    const FileDescriptor above = openDirectoryStrictly(directory);
    const FileDescriptor file =
        above ? openBeneath(above.get(), event.name, O_PATH) : FileDescriptor();
    struct stat status;
    if (file && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode)) {
      consider(file.get(), status, (event.mask & IN_CLOSE_WRITE) != 0);
    }
  }
}

}  // namespace qx::kernel
