#pragma once

#include <sys/stat.h>

#include <string>

#include "docsource/error.h"

namespace docsource {

/// A new file on its way to the place of another. It has no name while it is made, so that nothing
/// is left of it when it is given up. The two then change places (renameat2(2), RENAME_EXCHANGE),
/// and the old one is looked at before it goes: whatever a program put there in the meantime is
/// given its place back. One thread at a time.
class Replacement {
 public:
  /// In the directory in which `old` has its name at this moment.
  static Result<Replacement> beginFor(int old);
  Replacement(Replacement&&) noexcept = default;
  /// A file that is still beside the other one goes.
  ~Replacement();

  int file() const { return file_.get(); }

  /// The new file, which is complete and durable, stands at the path, the old one beside it under a
  /// hidden name. An error over ESTALE when another file was found at the path, which is there
  /// again.
  Result<void> exchange();
  /// The old one has its place again.
  Result<void> undo();
  /// The old one goes.
  Result<void> settle();

 private:
  Replacement() = default;
  Error error(int errnum) const;
  Result<void> giveBack();
  bool isSide(const struct stat& expected) const;

  std::string path_;
  Descriptor directory_;
  std::string name_;
  std::string side_;  // empty while there is none
  Descriptor file_;
  struct stat old_ {};
};

}  // namespace docsource
