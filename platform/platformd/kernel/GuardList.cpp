// The list of what is guarded.

#include "platform/platformd/kernel/GuardList.h"

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/base/Text.h"
#include "platform/files/FileManager.h"
#include "platform/files/Places.h"
#include "platform/log/Log.h"

namespace qx::kernel {
namespace {

constexpr const char* fileName = "/guarded";

std::string escaped(std::string_view path) {
  std::string text;
  for (const char byte : path) {
    const auto value = static_cast<unsigned char>(byte);
    if (value > ' ' && value < 0x7f && value != '%') {
      text += byte;
    } else {
      std::array<char, 4> code{};
      std::snprintf(code.data(), code.size(), "%%%02x", value);
      text += code.data();
    }
  }
  return text;
}

std::optional<std::string> unescaped(std::string_view text) {
  std::string path;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '\0') return std::nullopt;
    if (text[at] != '%') {
      path += text[at];
      continue;
    }
    const auto value = hexByte(text.substr(at + 1, 2));
    if (!value || *value == 0) return std::nullopt;
    path += static_cast<char>(*value);
    at += 2;
  }
  return path;
}

std::string_view takeWord(std::string_view& line) {
  const auto end = std::min(line.find(' '), line.size());
  const auto word = line.substr(0, end);
  line.remove_prefix(std::min(end + 1, line.size()));
  return word;
}

}  // namespace

std::optional<Guarded> parseGuarded(std::string_view line) {
  Guarded guarded;
  const auto kind = takeWord(line);
  if (kind == "moved") {
    guarded.kind = Guarded::Kind::moved;
  } else if (kind != "tree") {
    return std::nullopt;
  }
  const auto owner = takeWord(line);
  const auto parsed = std::from_chars(owner.data(), owner.data() + owner.size(), guarded.owner);
  if (parsed.ec != std::errc() || parsed.ptr != owner.data() + owner.size()) return std::nullopt;
  if (const auto handle = takeWord(line); handle != "-") {
    guarded.handle = FileHandle::parse(handle);
    if (!guarded.handle) return std::nullopt;
  } else if (guarded.kind == Guarded::Kind::moved) {
    return std::nullopt;
  }
  auto path = unescaped(line);
  if (!path || !path->starts_with('/')) return std::nullopt;
  guarded.path = *std::move(path);
  return guarded;
}

std::string textOf(const Guarded& guarded) {
  return std::string(guarded.kind == Guarded::Kind::tree ? "tree " : "moved ") +
         std::to_string(guarded.owner) + " " + (guarded.handle ? guarded.handle->text() : "-") +
         " " + escaped(guarded.path);
}

GuardList::GuardList(FileDescriptor directory) : directory_(std::move(directory)) {
  if (!directory_) return;
  const auto text = FileManager::readFile(procPath(directory_.get()) + fileName);
  if (!text) return;
  std::size_t senseless = 0;
  std::string_view rest = *text;
  while (!rest.empty()) {
    const auto end = std::min(rest.find('\n'), rest.size());
    auto guarded = parseGuarded(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (guarded) {
      entries_.insert(*std::move(guarded));
    } else {
      ++senseless;
    }
  }
  if (senseless != 0) {
    DS_LOG("[ERROR] %d lines of the list of what is guarded say nothing.", senseless);
  }
}

bool GuardList::add(const Guarded& guarded) {
  const auto ofOwner = std::count_if(entries_.begin(), entries_.end(), [&](const auto& entry) {
    return entry.owner == guarded.owner;
  });
  if (static_cast<std::size_t>(ofOwner) >= mostOfOneUser) return false;
  if (!entries_.insert(guarded).second) return true;
  if (write()) return true;
  entries_.erase(guarded);
  return false;
}

void GuardList::remove(const Guarded& guarded) {
  if (entries_.erase(guarded) != 0) write();
}

bool GuardList::write() const {
  std::string text;
  for (const auto& entry : entries_) text += textOf(entry) + "\n";
  if (!directory_) return false;
  const auto error = FileManager::replaceFile(procPath(directory_.get()) + fileName, text);
  if (error) DS_LOG("[ERROR] Cannot remember what is guarded. Error: %@", *error);
  return !error;
}

FileDescriptor openStateDirectory() {
  const std::string path =
      Places::servesMachine() ? *Places::machineState() : Places::root() + "/State";
  std::error_code problem;
  const auto parent =
      std::filesystem::canonical(std::filesystem::path(path).parent_path(), problem);
  FileDescriptor directory;
  if (const FileDescriptor above = openDirectoryStrictly(parent.string())) {
    const std::string name = path.substr(path.rfind('/') + 1);
    mkdirat(above.get(), name.c_str(), 0700);
    directory = openBeneath(above.get(), name, O_RDONLY | O_DIRECTORY);
  }
  struct stat status;
  if (!directory || fstat(directory.get(), &status) != 0 ||
      status.st_uid != static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1))) ||
      (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    DS_LOG("[ERROR] %@ is no place for the service's state: what is guarded is not remembered.",
           path);
    return {};
  }
  return directory;
}

}  // namespace qx::kernel
