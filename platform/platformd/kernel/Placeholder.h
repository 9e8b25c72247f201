#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

#include "platform/base/ByteRanges.h"

namespace qx::kernel {

/// Tells whether a file stands for content that its provider has.
///
/// It does when it has the extended attribute "user.docsource.placeholder", and the mark counts: it
/// names this very inode (InodeMark.h); or it names none and the file occupies less than its size;
/// or the service itself has vouched for the file. Without the attribute no file is a placeholder,
/// however sparse it is.
///
/// What the service has to remember of a file lies in attributes that no user can write:
/// "trusted.docsource.placeholder" (it is a placeholder although its mark names no inode) and
/// "trusted.docsource.mode" (the permissions that were taken off it). Both name the inode as well,
/// since a copy that root makes has them too. They take CAP_SYS_ADMIN.
///
/// Files are descriptors of any kind (O_PATH will do) of regular files. The caller has checked that
/// they belong to the owner of their tree. There is no state; any thread may call these.
namespace Placeholder {

/// Returns whether it is one; `status` is the file's fstat(2).
bool isOne(int file, const struct stat& status);

/// Returns whether its mark names a running process that fills it.
bool isBeingFilled(int file);

/// Returns the bytes that are there and on disk, according to the provider that fills the file at
/// this moment. They become more until the file is content, and never less: a provider that has
/// told of some gives the document another inode before it takes them away. Absent where nobody
/// tells; the mark has to name the inode.
std::optional<ByteRanges> partsThere(int file);

/// Gives a placeholder a first block, of zeros. Programs that copy files skip what the file system
/// calls a hole (lseek(2), SEEK_DATA) without reading it, so that nothing would report them. A file
/// that is so small that its occupied size says little is vouched for first. What the provider
/// writes meanwhile is not disturbed, and the modification time stays. Returns false when the file
/// cannot be opened.
bool anchor(int file, const struct stat& status);

/// Makes a file whose mark names no inode stay a placeholder while a provider fills it, however
/// much it occupies by then. Does nothing when the mark names the inode.
void vouch(int file);
void stopVouching(int file);

/// Makes it a document from now on, because somebody discarded the content for which it stood.
void unmark(int file);
/// Makes it an empty document, because a program has emptied it and what it holds was written since
/// by its provider. Returns false when the file cannot be opened for that.
bool empty(int file);
/// Does that when its provider says so in its mark. Returns whether it does.
bool emptyIfAsked(int file);

/// Takes all permissions off the file and remembers them, for the time in which nobody would keep
/// readers waiting. Returns whether it has none now.
bool conceal(int file, const struct stat& status);
/// Gives them back, unless somebody else has given it some. Does nothing for a file that was not
/// concealed.
void reveal(int file, const struct stat& status);

/// Whether its provider has made it without permissions, because nobody guarded it, and its mark
/// says which it has.
bool isHidden(int file, const struct stat& status);

/// Gives a placeholder that its provider made while nobody kept readers waiting the permissions
/// that its mark names. Only for a file that is guarded by now.
void revealHidden(int file, const struct stat& status);

}  // namespace Placeholder
}  // namespace qx::kernel
