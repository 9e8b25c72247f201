// The access-control file: one property list that holds the whole list, read at the start and at
// the first unlock, and written whole after every change. When the file is missing, the list in
// memory stays, since there is nothing better. When it cannot be parsed, the list is dropped, and
// the next commit overwrites the file.

#include <istream>

#include "acl/DSAccessControlStore.h"
#include "platform/files/FileManager.h"
#include "platform/files/Places.h"
#include "platform/log/Log.h"
#include "platform/plist/PropertyList.h"

namespace {

std::string makeLocation() {
  const std::string directory = qx::Places::home() + "/Library/DocSource";
  if (!qx::FileManager::fileExists(directory)) {
    if (auto error = qx::FileManager::createDirectory(directory)) {
      DS_LOG("[ERROR] Cannot create access control directory. Error: %@", *error);
    }
  }
  qx::FileManager::removeSideFiles(directory);
  return directory + "/AccessControl.plist";
}

/// Decides the path, and makes the directory or clears it of what a killed process left, once per
/// process.
const std::string& filePath() {
  static const auto& path = *new std::string(makeLocation());
  return path;
}

}  // namespace

void DSAccessControlStore::syncQueueReadAccessControl() {
  const std::string& path = filePath();
  if (qx::FileManager::fileExists(path)) {
    if (auto stream = qx::FileManager::inputStream(path)) {
      // The old list goes first: the two together would be twice the memory.
      syncQueueAccessControlDict.reset();
      auto list = AccessControlList::read(*stream);
      if (list) {
        syncQueueAccessControlDict = std::move(*list);
        DS_LOG("[INFO] Successfully read access control from disk.");
      } else {
        DS_LOG("[ERROR] Cannot read access control from disk. Error: %@", list.error());
      }
    }
  }
  if (!syncQueueAccessControlDict) syncQueueAccessControlDict.emplace();
}

std::optional<qx::Error> DSAccessControlStore::syncQueueCommitAccessControl() {
  DS_LOG("[INFO] Committing access control list");
  const std::string& path = filePath();
  auto error = qx::FileManager::replaceFile(
      path,
      [this](const std::function<void(std::string_view)>& append) {
        qx::PropertyList::Writer writer(append);
        syncQueueAccessControlDict->write(writer);
        writer.finish();
      },
      0600);
  if (error) DS_LOG("[ERROR] Could not write to %@", path);
  syncQueueFileIsBehind_ = error.has_value();
  return error;
}
