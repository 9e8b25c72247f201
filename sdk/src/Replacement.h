#pragma once

#include <sys/stat.h>

#include <string>

#include "docsource/error.h"

namespace docsource {

/// A new file on its way to the place of another. It has no name while it is made, so that nothing
/// is left of it when it is given up. Then the two change places (renameat2(2), RENAME_EXCHANGE),
/// and the old one is looked at before it goes: whatever a program put there in the meantime gets
/// its place back. Used by one thread at a time.
class Replacement {
 public:
  /// Makes the file in the directory in which `old` has its name at this moment.
  static Result<Replacement> beginFor(int old);
  Replacement(Replacement&&) noexcept = default;
  /// Removes a file that is still beside the other one.
  ~Replacement();

  int file() const { return file_.get(); }

  /// Puts the new file, which is complete and durable, at the path; the old one stands beside it
  /// under a hidden name. An error over ESTALE says that another file was found at the path; it is
  /// there again.
  Result<void> exchange();
  /// Gives the old one its place back.
  Result<void> undo();
  /// Removes the old one.
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
