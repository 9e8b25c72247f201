#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/base/FileDescriptor.h"
#include "platform/files/DirectoryWatch.h"

namespace qx::kernel {

/// The care that a program needs with placeholders.
enum class ProgramKind {
  ordinary,
  wholeFile,     // looks for the holes of a file before it reads: waits when it opens one
  neverProvide,  // looks into every file that it finds: is refused content that is not there
};

/// The lines of a programs.conf: "whole-file NAME" or "never-provide NAME", NAME being the file
/// name of an executable. Empty lines and what follows a '#' are skipped.
class ProgramList {
 public:
  /// The list that comes with the package, used where there is no file.
  static const ProgramList& standard();
  /// `problem` is called for each line that cannot be read, with its number.
  static ProgramList parse(std::string_view text, const std::function<void(std::size_t)>& problem);

  ProgramKind kindOf(const std::string& name) const;

 private:
  std::map<std::string, ProgramKind> kinds_;
};

/// The lists in force: the machine's, /etc/docsource/programs.conf ("etc" of DOCSOURCE_MACHINE
/// where that is set), and that of the user whose process it is. A user's list is
/// docsource/programs.conf in $XDG_CONFIG_HOME of the user whom the service serves; for any user of
/// a machine's service it is in ~/.config. A user's own line goes before the machine's. Files are
/// read again when they change. A user's file is opened without following a link below the home
/// directory, and does not count unless it is the user's own. Any thread may ask; a question never
/// waits for a file.
class Programs : public std::enable_shared_from_this<Programs> {
 public:
  static std::shared_ptr<Programs> start();

  /// Reads the user's list, if that has not been done yet, and watches it.
  void learn(uid_t user);

  ProgramKind kindOf(pid_t process, uid_t user);

 private:
  struct List {
    std::optional<ProgramList> programs;
    std::unique_ptr<DirectoryWatch> watch;
  };
  static constexpr uid_t machine = static_cast<uid_t>(-1);

  void follow(uid_t user);
  void read(uid_t user, const std::string& directory);

  std::mutex mutex_;
  std::set<uid_t> known_;
  std::map<uid_t, List> lists_;
};

}  // namespace qx::kernel
