#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "platform/base/ByteRanges.h"

/// What the mark of a placeholder, the extended attribute "user.docsource.placeholder", says of the
/// document and of how it is being filled. The mark is words with single spaces between; which
/// inode it holds for is told by InodeMark.h.
namespace qx {

/// Whether it says "providing PID START" and that process runs (proc_pid_stat(5), field 22).
bool isBeingFilled(std::string_view mark);

/// The bytes that are there, in the file and on disk, of the version that the placeholder stands
/// for: a word "there:BEGIN-END,BEGIN-END". Whoever sets it has synced them before (fsync(2)), and
/// never takes them out of that file again. Absent without that word: whoever fills the file does
/// not tell of parts.
std::optional<ByteRanges> partsThere(std::string_view mark);
/// The word. Of very many ranges those that are longest.
std::string partsWord(const ByteRanges& parts);

/// The permissions of the document where the placeholder has none: a word "mode:OCTAL". Never more
/// than rwxrwxrwx, whatever it names. Absent without it, and where it names none.
std::optional<mode_t> modeIn(std::string_view mark);
std::string modeWord(mode_t mode);
/// The mark without its first word of that kind.
std::string withoutMode(std::string_view mark);

}  // namespace qx
