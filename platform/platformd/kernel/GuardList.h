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

/// Something that is guarded, as it is remembered from one start to the next.
struct Guarded {
  enum class Kind {
    tree,   // a directory of documents, by its path
    moved,  // a directory or document that was moved out of one, or lost its name there, by handle
  };
  Kind kind = Kind::tree;
  uid_t owner = 0;
  /// For a tree, its path without links; for what was moved, a directory on the same file system.
  std::string path;
  /// For a tree, absent until it was there.
  std::optional<FileHandle> handle;

  friend auto operator<=>(const Guarded&, const Guarded&) = default;
};

/// Reads one line of the list, without its end: "tree OWNER HANDLE PATH" or "moved OWNER HANDLE
/// PATH". In the path, characters that are not printable, spaces and '%' are written %XX; the
/// handle is "-" while there is none. Absent for anything else.
std::optional<Guarded> parseGuarded(std::string_view line);
std::string textOf(const Guarded& guarded);

/// The list of everything that is guarded, in a file of the service's state. What is added is on
/// the disk when add() returns. Used by one thread at a time.
class GuardList {
 public:
  /// How much one user may have on it.
  static constexpr std::size_t mostOfOneUser = 1000;

  /// Reads the file "guarded" in the directory. Lines that cannot be read are left out, and counted
  /// in the log. Without a directory nothing is remembered.
  explicit GuardList(FileDescriptor directory);

  const std::set<Guarded>& all() const { return entries_; }
  /// Returns false when it cannot be remembered.
  bool add(const Guarded& guarded);
  void remove(const Guarded& guarded);

 private:
  bool write() const;

  FileDescriptor directory_;
  std::set<Guarded> entries_;
};

/// Opens the directory of what must outlive the service: the machine's state, or "State" in the
/// root of the user whom it serves; makes it when it is missing (mode 0700). Empty when there is
/// none that nobody else can use.
FileDescriptor openStateDirectory();

}  // namespace qx::kernel
