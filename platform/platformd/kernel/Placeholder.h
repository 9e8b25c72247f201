#pragma once

#include <sys/stat.h>

#include <string>

namespace qx::kernel {

/// Whether a file stands for content that its provider has.
///
/// The extended attribute "user.docsource.placeholder" says so, whatever its value. Without it
/// "user.docsource.provided" and "user.docsource.local" say that it does not. Without any, a
/// regular file that occupies less than its size (a sparse one) is a placeholder, so that a
/// provider in any language needs no more than truncate(2). Any thread; sees the file itself,
/// through links of the last name not.
namespace Placeholder {

enum class State { content, placeholder, markedPlaceholder };

/// Of an open file; `status` is its fstat(2).
State ofFile(int file, const struct stat& status);
/// Of a name in the file system; `status` is its lstat(2).
State ofPath(const std::string& path, const struct stat& status);

/// Gives a placeholder a first block, of zeros: programs that copy files skip what the file system
/// says is a hole (lseek(2), SEEK_DATA), without reading anything, so that nothing would tell of
/// them. A placeholder that would not look like one any more then gets the attribute, with a value
/// that says that it is ours. What the provider writes meanwhile is not disturbed; the modification
/// time stays.
void anchor(const std::string& path, const struct stat& status);

/// The provider says that it is all there: takes away an attribute that is ours.
void unmarkOurs(const std::string& path);

/// Whether its holes are meant: somebody other than the provider made it like this.
void setLocal(const std::string& path, bool isLocal);

/// It is content of its own from now on: somebody threw away what it stood for.
void unmark(const std::string& path);

/// Takes all permissions off the file, remembering them in "user.docsource.concealed-mode"; for
/// the time in which nobody would keep readers waiting. reveal() gives them back.
bool conceal(const std::string& path, const struct stat& status);
void reveal(const std::string& path, const struct stat& status);

}  // namespace Placeholder
}  // namespace qx::kernel
