#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

#include "platform/base/ByteRanges.h"

namespace qx::kernel {

/// Whether a file stands for content that its provider has.
///
/// It does when it has the extended attribute "user.docsource.placeholder", and the mark counts: it
/// names this very inode (InodeMark.h), or it names none and the file occupies less than its size,
/// or the service itself has vouched for it. Without the attribute no file is a placeholder,
/// however sparse.
///
/// What the service has to remember of a file lies in attributes that no user can write:
/// "trusted.docsource.placeholder" (it is one although its mark names no inode) and
/// "trusted.docsource.mode" (the permissions that were taken off it). Both name the inode as well,
/// since a copy that root makes has them too. They take CAP_SYS_ADMIN.
///
/// Files are descriptors of any kind (O_PATH will do) of regular files, which the caller has seen
/// to belong to the owner of their tree. Stateless; any thread.
namespace Placeholder {

/// `status` is the file's fstat(2).
bool isOne(int file, const struct stat& status);

/// The bytes that its provider, which fills it at this moment, says are there and on disk. They
/// become more until the file is content, and never less: a provider that has told of some gives
/// the document another inode before it takes them away. Absent where nobody tells: the mark has to
/// name the inode.
std::optional<ByteRanges> partsThere(int file);

/// Gives a placeholder a first block, of zeros: programs that copy files skip what the file system
/// says is a hole (lseek(2), SEEK_DATA), without reading anything, so that nothing would tell of
/// them. One that is so small that what it occupies says little is vouched
/// for first. What the
/// provider writes meanwhile is not disturbed; the modification time stays.
void anchor(int file, const struct stat& status);

/// While a provider fills a file whose mark names no inode it stays a placeholder, however much it
/// occupies by then. Does nothing where the mark names the inode.
void vouch(int file);
void stopVouching(int file);

/// It is content of its own from now on: somebody threw away what it stood for.
void unmark(int file);

/// Takes all permissions off the file, remembering them; for the time in which nobody would keep
/// readers waiting. Whether it has none now.
bool conceal(int file, const struct stat& status);
/// Gives them back, unless somebody else has given it some; nothing for a file that was not
/// concealed.
void reveal(int file, const struct stat& status);

/// Gives a placeholder that its provider made while nobody kept readers waiting the permissions
/// that its mark names. Only of a file that readers wait for by now.
void revealHidden(int file, const struct stat& status);

}  // namespace Placeholder
}  // namespace qx::kernel
