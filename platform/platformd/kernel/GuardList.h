#pragma once

#include <sys/types.h>

#include <compare>
#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/platformd/kernel/Beneath.h"

namespace qx::kernel {

/// What is guarded, as it is remembered from one start to the next.
struct Guarded {
  enum class Kind {
    tree,   // a directory of documents, by its path
    moved,  // a directory or document that was moved out of one, or lost its name there, by handle
  };
  Kind kind = Kind::tree;
  uid_t owner = 0;
  /// Of a tree, without links; of what was moved, a directory on the same file system.
  std::string path;
  /// Of a tree absent until it was there.
  std::optional<FileHandle> handle;

  friend auto operator<=>(const Guarded&, const Guarded&) = default;
};

/// One line of the list, without its end: "tree OWNER HANDLE PATH" or "moved OWNER HANDLE PATH", in
/// the path what is no printable character, spaces and '%' as %XX, the handle "-" while there is
/// none. Absent for anything else.
std::optional<Guarded> parseGuarded(std::string_view line);
std::string textOf(const Guarded& guarded);

/// The list of everything that is guarded, in a file of the service's state. What was added is on
/// the disk when add() returns. One thread at a time.
class GuardList {
 public:
  /// What one user may have on it.
  static constexpr std::size_t mostOfOneUser = 1000;

  /// Reads the file "guarded" in the directory; lines that say nothing are left out, and counted in
  /// the log. Without a directory nothing is remembered.
  explicit GuardList(FileDescriptor directory);

  const std::set<Guarded>& all() const { return entries_; }
  /// False when it cannot be remembered.
  bool add(const Guarded& guarded);
  void remove(const Guarded& guarded);

 private:
  bool write() const;

  FileDescriptor directory_;
  std::set<Guarded> entries_;
};

/// Where the service keeps what must outlive it: the machine's state, or "State" in the root of the
/// user whom it serves; made when it is missing (mode 0700). Empty when there is none to be had
/// that belongs to nobody else.
FileDescriptor openStateDirectory();

}  // namespace qx::kernel
