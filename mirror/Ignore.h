#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace docsource::mirror {

/// Whether a name is one that editors and tools give to files they are about to remove or rename.
/// `isInRepository`: below a directory ".git", whose lock files and half-written objects count too.
bool isTemporaryName(std::string_view name, bool isInRepository);

/// The rules of one ".docsourceignore", as gitignore(5) has them: "#" comments, "!" takes back, a
/// slash inside or in front ties the pattern to the file's directory, one at the end to
/// directories, "**" stands for any directories.
class IgnoreRules {
 public:
  static constexpr const char* fileName = ".docsourceignore";

  explicit IgnoreRules(std::string_view text);

  enum class Answer { nothing, ignored, kept };
  /// `path` is relative to the directory that the file lies in. The last rule that fits decides.
  Answer ask(std::string_view path, bool isDirectory) const;

 private:
  struct Rule {
    std::string pattern;
    bool isTied = false;
    bool isForDirectories = false;
    bool takesBack = false;
  };
  std::vector<Rule> rules_;
};

}  // namespace docsource::mirror
