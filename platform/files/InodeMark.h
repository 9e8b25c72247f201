#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Marks on files that count for one inode only. Extended attributes are copied along with content
/// (cp -a, rsync -X, tar --xattrs); a mark that names the inode for which it was made means nothing
/// on a copy.
///
/// A mark consists of words separated by single spaces. The word "inode:NUMBER", or
/// "inode:NUMBER:SECONDS.NANOSECONDS" with the inode's time of birth (nine digits behind the
/// point), names the inode; the birth tells an inode from a later one with the same number. The
/// first such word counts. A word that begins with "inode:" and continues in any other way names no
/// inode that exists.
namespace qx {

/// What tells an inode from all others of its file system, present and past.
struct InodeName {
  struct Time {
    std::int64_t seconds = 0;
    std::uint32_t nanoseconds = 0;
    friend bool operator==(const Time&, const Time&) = default;
  };
  std::uint64_t number = 0;
  /// Absent where the file system keeps none (statx(2), STATX_BTIME).
  std::optional<Time> birth;
};

/// Returns the name of an open file's inode (O_PATH will do); absent with errno set when it cannot
/// be asked.
std::optional<InodeName> inodeNameOf(int file);
/// The same for an entry of a directory, for the entry itself if it is a link. AT_FDCWD stands for
/// the working directory.
std::optional<InodeName> inodeNameOf(int directory, const std::string& name);

/// Returns the first word of a mark that begins so.
std::optional<std::string_view> wordWith(std::string_view beginning, std::string_view mark);

/// Returns the word that names the inode.
std::string markWord(const InodeName& inode);

enum class MarkedInode {
  none,   // the mark names no inode
  this_,  // it names this one
  other,
};
/// Returns which inode a mark names. A mark without a birth names whatever inode has the number.
MarkedInode markedInode(std::string_view mark, const InodeName& inode);

}  // namespace qx
