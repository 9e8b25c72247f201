// Which names stay here.

#include "mirror/Ignore.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <cctype>

namespace docsource::mirror {
namespace {

bool fits(const std::string& pattern, const std::string& name) {
  return ::fnmatch(pattern.c_str(), name.c_str(), FNM_PATHNAME | FNM_NOESCAPE) == 0;
}

bool isUpperOrDigit(char letter) {
  return std::isupper(static_cast<unsigned char>(letter)) != 0 ||
         std::isdigit(static_cast<unsigned char>(letter)) != 0;
}

/// Parts of a path against parts of a pattern, in which "**" takes any number of parts.
bool fitsParts(std::string_view pattern, std::string_view path) {
  if (pattern.empty()) return path.empty();
  const auto patternEnd = std::min(pattern.find('/'), pattern.size());
  const auto part = pattern.substr(0, patternEnd);
  const auto restOfPattern = pattern.substr(std::min(patternEnd + 1, pattern.size()));
  if (part == "**") {
    if (restOfPattern.empty()) return !path.empty();
    while (true) {
      if (fitsParts(restOfPattern, path)) return true;
      const auto slash = path.find('/');
      if (slash == std::string_view::npos) return false;
      path.remove_prefix(slash + 1);
    }
  }
  if (path.empty()) return false;
  const auto pathEnd = std::min(path.find('/'), path.size());
  return ::fnmatch(std::string(part).c_str(), std::string(path.substr(0, pathEnd)).c_str(),
                   FNM_PATHNAME) == 0 &&
         fitsParts(restOfPattern, path.substr(std::min(pathEnd + 1, path.size())));
}

}  // namespace

bool isTemporaryName(std::string_view name, bool isInRepository) {
  const std::string text(name);
  static const std::array<std::string, 15> patterns = {
      "*~",          // many editors' backups
      ".*.sw[a-p]",  // vim
      ".#*",
      "#*#",               // emacs
      ".goutputstream-*",  // GIO
      ".~lock.*#",
      "~$*",  // locks of office programs
      "~*.tmp",
      ".*.tmp",                 // their files while they save
      "lu[0-9]*.tmp",           //
      ".*.kate-swp",            // kate
      ".nfs????????????????*",  // removed while open
      ".fuse_hidden*",          //
      ".*.un~",                 // vim's undo
      ".saves-*",
  };
  if (std::any_of(patterns.begin(), patterns.end(),
                  [&](const auto& pattern) { return fits(pattern, text); })) {
    return true;
  }
  if (text == "4913") return true;  // vim tries whether it may write
  // GNU sed -i: "sed" and six random letters and digits; words have none of the capitals.
  constexpr std::size_t sedLength = 9;
  if (text.size() == sedLength && text.starts_with("sed") &&
      std::all_of(text.begin(), text.end(),
                  [](unsigned char letter) { return std::isalnum(letter) != 0; }) &&
      std::any_of(text.begin(), text.end(), isUpperOrDigit)) {
    return true;
  }
  // Office programs: eight hexadecimal digits.
  if (fits("[0-9A-F][0-9A-F][0-9A-F][0-9A-F][0-9A-F][0-9A-F][0-9A-F][0-9A-F].tmp", text)) {
    return true;
  }
  return isInRepository && (fits("*.lock", text) || fits("tmp_*", text) || text == "gc.pid");
}

IgnoreRules::IgnoreRules(std::string_view text) {
  while (!text.empty()) {
    auto line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (line.ends_with('\r')) line.remove_suffix(1);
    while (line.ends_with(' ') && !line.ends_with("\\ ")) line.remove_suffix(1);
    if (line.empty() || line.starts_with('#')) continue;
    Rule rule;
    if (line.starts_with('!')) {
      rule.takesBack = true;
      line.remove_prefix(1);
    }
    if (line.ends_with('/')) {
      rule.isForDirectories = true;
      line.remove_suffix(1);
    }
    rule.isTied = line.find('/') != std::string_view::npos;
    if (line.starts_with('/')) line.remove_prefix(1);
    if (line.empty()) continue;
    rule.pattern = line;
    rules_.push_back(std::move(rule));
  }
}

IgnoreRules::Answer IgnoreRules::ask(std::string_view path, bool isDirectory) const {
  const auto name = path.substr(path.rfind('/') + 1);
  for (auto rule = rules_.rbegin(); rule != rules_.rend(); ++rule) {
    if (rule->isForDirectories && !isDirectory) continue;
    if (fitsParts(rule->pattern, rule->isTied ? path : name)) {
      return rule->takesBack ? Answer::kept : Answer::ignored;
    }
  }
  return Answer::nothing;
}

}  // namespace docsource::mirror
