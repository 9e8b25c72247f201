#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "platform/base/ByteRanges.h"

/// What the mark of a placeholder, the extended attribute "user.docsource.placeholder", says of the
/// document and of how it is being filled. The mark consists of words with single spaces between
/// them; InodeMark.h tells for which inode it counts.
namespace qx {

/// Returns whether it says "providing PID START" and that process runs (proc_pid_stat(5), field
/// 22).
bool isBeingFilled(std::string_view mark);

/// Returns whether it says "emptied": who filled the file has found that a program has emptied it,
/// and does not write to it any more. platformd, which keeps the program waiting, takes away what
/// was written since.
bool isEmptied(std::string_view mark);

/// Returns the bytes that are there, in the file and on disk, in the version for which the
/// placeholder stands: a word "there:BEGIN-END,BEGIN-END". Whoever sets the word has synced them
/// before (fsync(2)), and never takes them out of that file again. Absent without that word: then
/// whoever fills the file does not tell of parts.
std::optional<ByteRanges> partsThere(std::string_view mark);
/// Makes that word. Of very many ranges it names the longest.
std::string partsWord(const ByteRanges& parts);

/// Returns the permissions of the document where the placeholder has none: a word "mode:OCTAL".
/// They are never more than rwxrwxrwx, whatever the word says. Absent without the word, and when it
/// names no mode.
std::optional<mode_t> modeIn(std::string_view mark);
std::string modeWord(mode_t mode);
/// Returns the mark without its first word of that kind.
std::string withoutMode(std::string_view mark);

}  // namespace qx
