// Marks that name the inode they were made for.

#include "platform/files/InodeMark.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>

namespace qx {
namespace {

constexpr std::string_view prefix = "inode:";

std::optional<InodeName> nameOf(int directory, const char* path, int flags) {
  struct statx status {};
  if (statx(directory, path, flags | AT_STATX_DONT_SYNC, STATX_INO | STATX_BTIME, &status) != 0) {
    return std::nullopt;
  }
  InodeName inode{status.stx_ino, std::nullopt};
  if (status.stx_mask & STATX_BTIME) {
    inode.birth = InodeName::Time{status.stx_btime.tv_sec, status.stx_btime.tv_nsec};
  }
  return inode;
}

}  // namespace

std::optional<InodeName> inodeNameOf(int file) { return nameOf(file, "", AT_EMPTY_PATH); }

std::optional<InodeName> inodeNameOf(int directory, const std::string& name) {
  return nameOf(directory, name.c_str(), AT_SYMLINK_NOFOLLOW);
}

std::string markWord(const InodeName& inode) {
  std::string word = std::string(prefix) + std::to_string(inode.number);
  if (inode.birth) {
    char nanoseconds[16];
    std::snprintf(nanoseconds, sizeof nanoseconds, "%09u", inode.birth->nanoseconds);
    word += ":" + std::to_string(inode.birth->seconds) + "." + nanoseconds;
  }
  return word;
}

std::optional<std::string_view> wordWith(std::string_view beginning, std::string_view mark) {
  while (!mark.empty()) {
    const auto word = mark.substr(0, mark.find(' '));
    if (word.starts_with(beginning)) return word;
    mark.remove_prefix(word.size() == mark.size() ? word.size() : word.size() + 1);
  }
  return std::nullopt;
}

MarkedInode markedInode(std::string_view mark, const InodeName& inode) {
  const auto word = wordWith(prefix, mark);
  if (!word) return MarkedInode::none;
  const bool isNamed = *word == markWord({inode.number, std::nullopt}) || *word == markWord(inode);
  return isNamed ? MarkedInode::this_ : MarkedInode::other;
}

}  // namespace qx
