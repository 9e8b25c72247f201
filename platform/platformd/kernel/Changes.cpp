// What happened in the trees.

#include "platform/platformd/kernel/Changes.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <utility>
#include <vector>

#include "platform/log/Log.h"
#include "platform/platformd/kernel/Beneath.h"
#include "platform/platformd/kernel/Placeholder.h"

namespace qx::kernel {
namespace {

timespec now() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  return time;
}

/// What is found in one directory at a time costs one look for all of it.
constexpr std::size_t mostDirectories = 64;

}  // namespace

Changes::Changes(const ChangeGroup& group, GuardedTrees& trees, Claims& claims, OnArrival onArrival,
                 OnProgress onProgress, OnModified onModified, OnLoss onLoss, OnQueue onQueue,
                 Slowly slowly)
    : group_(group),
      trees_(trees),
      claims_(claims),
      onArrival_(std::move(onArrival)),
      onProgress_(std::move(onProgress)),
      onModified_(std::move(onModified)),
      onLoss_(std::move(onLoss)),
      onQueue_(std::move(onQueue)),
      slowly_(std::move(slowly)),
      writes_(now()) {}

void Changes::drain(bool all) {
  std::map<FileHandle, std::optional<GuardedTrees::Directory>> directories;
  exempt_.clear();
  for (const auto& change : group_.read(all)) {
    if (!change.directory) {
      DS_LOG("[NOTICE] Changes of files were lost; looking at everything again.");
      writes_.clear();
      onLoss_(std::nullopt);
      continue;
    }
    if (change.process == getpid()) continue;
    auto known = directories.find(*change.directory);
    if (known == directories.end()) {
      if (directories.size() >= mostDirectories) directories.clear();
      known = directories.emplace(*change.directory, trees_.directory(*change.directory)).first;
    }
    apply(change, known->second);
    // A directory's own move is told by its parent: what is known of it may not be true any more.
    if (change.mask & FAN_ONDIR) directories.clear();
  }
}

bool Changes::isExempt(pid_t process, const std::optional<GuardedTrees::Place>& place) {
  const auto [known, isNew] = exempt_.try_emplace({process, place ? place->path : std::string()});
  if (isNew) known->second = claims_.isExempt(process, place);
  return known->second;
}

void Changes::apply(const ChangeEvent& change,
                    const std::optional<GuardedTrees::Directory>& directory) {
  if (change.mask & (FAN_MOVED_FROM | FAN_DELETE) && change.target) {
    later(directory ? directory->owner : 0,
          [this, target = *change.target] { trees_.wasMoved(target); });
  }
  if (!directory || change.name.empty() || change.name == ".") return;
  if (change.mask & FAN_ONDIR) {
    if ((change.mask & (FAN_CREATE | FAN_MOVED_TO)) == 0) return;
    FileDescriptor made =
        openBeneath(directory->file.get(), change.name, O_RDONLY | O_DIRECTORY | O_NONBLOCK);
    const bool isForeign = directory->place && claims_.of(*directory->place) &&
                           !isExempt(change.process, directory->place);
    if (made) {
      look(std::move(made), directory->owner,
           isForeign ? std::optional(change.process) : std::nullopt);
    }
    return;
  }
  const FileDescriptor file = openBeneath(directory->file.get(), change.name, O_PATH);
  struct stat status;
  if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return;
  applyToFile(change, *directory, file, status);
}

void Changes::applyToFile(const ChangeEvent& change, const GuardedTrees::Directory& directory,
                          const FileDescriptor& file, const struct stat& status) {
  const bool isForeign = !isExempt(change.process, directory.place);
  const bool isModified = (change.mask & FAN_MODIFY) != 0;
  const bool isClosed = (change.mask & (FAN_CLOSE_WRITE | FAN_MOVED_TO)) != 0;
  if (status.st_uid == directory.owner) {
    if (isForeign && isModified) onModified_(change.process, file, status);
    if (change.mask & FAN_ATTRIB) Placeholder::emptyIfAsked(file.get());
  }
  const bool isPlaceholder = trees_.examine(file.get(), status, directory.owner, isClosed);
  if (isPlaceholder && change.mask & FAN_MOVED_TO) onArrival_(identityOf(status));
  if (isPlaceholder && change.mask & FAN_ATTRIB) onProgress_(identityOf(status));
  if (isPlaceholder || !isForeign || !directory.place) {
    // Of what the provider does, and of a placeholder, there is nothing to tell.
    if (!isForeign) writes_.isKnown(status);
    return;
  }
  if (isModified) writes_.modified(status, change.process);
  auto writers =
      change.mask & FAN_CLOSE_WRITE ? writes_.closed(status, change.process) : std::vector<pid_t>();
  // Through a mapping a write tells only by the time; one that was set says nothing.
  if (change.mask & FAN_ATTRIB && !isModified) {
    writes_.isKnown(status);
    std::erase(writers, change.process);
  }
  if (change.mask & FAN_MOVED_TO) writers.push_back(change.process);
  if (writers.empty()) return;
  writes_.isKnown(status);
  struct stat now;
  if (fstat(file.get(), &now) != 0 || Placeholder::isOne(file.get(), now)) return;
  GuardedTrees::Place place = *directory.place;
  place.path = directory.path + "/" + change.name;
  for (const pid_t writer : writers) tell(place, writer);
}

void Changes::later(uid_t user, WorkQueue::Task task) {
  auto& backlog = backlogs_[user];
  if (backlog.tasks >= mostOfOneUser) {
    backlog.isLost = true;
    return;
  }
  ++backlog.tasks;
  slowly_(user, [this, user, task = std::move(task)] {
    task();
    onQueue_([this, user] {
      auto& done = backlogs_[user];
      if (--done.tasks != 0) return;
      const bool isLost = done.isLost;
      backlogs_.erase(user);
      if (!isLost) return;
      DS_LOG("[NOTICE] User %d changes more than can be followed; looking at everything again.",
             user);
      onLoss_(user);
    });
  });
}

void Changes::look(FileDescriptor directory, uid_t owner, std::optional<pid_t> maker) {
  trees_.watch(directory.get(), owner);
  later(owner,
        [this, directory = std::make_shared<FileDescriptor>(std::move(directory)), owner, maker] {
          auto scan = trees_.look(directory->get(), owner, maker.has_value());
          onQueue_([this] { onArrival_(std::nullopt); });
          if (!maker) return;
          onQueue_([this, maker, contents = std::move(scan.contents)] {
            for (const auto& path : contents) {
              if (const auto place = trees_.placeOf(path)) tell(*place, *maker);
            }
          });
        });
}

void Changes::tell(const GuardedTrees::Place& place, pid_t writer) const {
  // The path is not looked up: where it leads by now is nobody's business here.
  if (const Claims::Claim* claim = claims_.of(place)) {
    DocSourceRegistry::didFinishWriting(claim->source, URL::fileURL(place.path),
                                        ProcessLineage::identifierOf(writer));
  }
}

}  // namespace qx::kernel
