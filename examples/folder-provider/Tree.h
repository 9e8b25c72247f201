#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <string>

#include "docsource/error.h"

namespace folder {

/// A directory and what is below it, reached by relative paths ("a/b.txt", the directory itself
/// being "") that never lead out of it: no symbolic link is followed anywhere (openat2(2),
/// RESOLVE_BENEATH and RESOLVE_NO_SYMLINKS).
class Tree {
 public:
  static docsource::Result<Tree> open(const std::string& path);

  const std::string& path() const { return path_; }
  std::string pathOf(const std::string& relative) const { return path_ + "/" + relative; }

  // Each sets errno when it fails.

  /// Never blocks on a FIFO; the descriptor is close-on-exec.
  docsource::Descriptor openItem(const std::string& relative, int flags, mode_t mode = 0) const;
  /// A regular file; anything else fails with EINVAL, a directory with EISDIR.
  docsource::Descriptor openFile(const std::string& relative, int flags) const;
  /// Makes the directory and those above it where they are missing.
  bool makeDirectories(const std::string& relative) const;
  /// Within this tree or from it into another on the same file system; fails with EEXIST instead
  /// of replacing unless `replace`.
  bool move(const std::string& from, const Tree& into, const std::string& to, bool replace) const;
  /// A second name for a file.
  bool link(const std::string& from, const std::string& to) const;
  bool remove(const std::string& relative) const;
  /// Makes the directory that holds the item durable.
  bool syncParent(const std::string& relative) const;
  /// Makes everything durable that is on the file system of this tree.
  bool syncAll() const;

  /// Tells of every regular file and directory below, a directory before what is in it; other
  /// things are passed over. False when a part could not be read.
  using Visitor = std::function<void(const std::string& relative, const struct stat& status)>;
  bool walk(const Visitor& visitor) const;

 private:
  Tree(std::string path, docsource::Descriptor directory)
      : path_(std::move(path)), directory_(std::move(directory)) {}
  bool walkDirectory(const std::string& relative, const Visitor& visitor) const;

  std::string path_;
  docsource::Descriptor directory_;
};

/// "a/b" of "a/b/c", "" of "c".
std::string parentOf(const std::string& relative);
std::string nameOf(const std::string& relative);

}  // namespace folder
