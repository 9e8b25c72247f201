#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "docsource/placeholder.h"
#include "platform/base/ByteRanges.h"

/// The mark of placeholders: what it says, and of which inode (docsource/placeholder.h has its
/// form). Files are named by descriptors of any kind, O_PATH among them. Any thread may call these
/// functions, of the owner's process: that the file is read-only prevents no change of its mark.
/// They set errno when they fail.
namespace docsource::mark {

inline constexpr const char* attribute = "user.docsource.placeholder";

struct Mark {
  PlaceholderState state = PlaceholderState::present;
  /// The permissions of the document, where they are not the file's own.
  std::optional<mode_t> mode;
  /// The content that is there, as far as whoever fills the file tells.
  std::optional<qx::ByteRanges> parts;
  /// Whether the file has no permissions, so that its owner cannot read its mark either.
  bool isHidden = false;
  /// Whether it only waits for platformd to make an empty document of it.
  bool isEmptied = false;
};
/// Reads the mark. A file without one, or with one that was made for another inode, is present.
Mark read(int file);
/// The same with all power over the file that its owner can have (AsOwner.h): a mark that is hidden
/// only where that is not to be had.
Mark readAsOwner(int file);

/// Sets "placeholder", or "providing" by this process, for this inode. Durable after fsync(2).
bool setPlaceholder(int file, std::optional<mode_t> mode,
                    const std::optional<qx::ByteRanges>& parts = std::nullopt);
/// Of one that `isMarked` only as long as it is: a mark that platformd has taken off because a
/// program has emptied the file does not come back.
bool setProviding(int file, std::optional<mode_t> mode, const std::optional<qx::ByteRanges>& parts,
                  bool isMarked);
/// Sets "emptied", if it is marked.
bool setEmptied(int file);
/// Removes the mark. It succeeds when there is none.
bool clear(int file);

/// Copies all other attributes that users give files ("user."), as far as their owner can read
/// them.
void copyOtherAttributes(int from, int to);

/// The name under which this process reaches the file that the descriptor stands for (proc(5)).
std::string descriptorPath(int file);

}  // namespace docsource::mark
