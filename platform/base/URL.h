#pragma once

#include <compare>
#include <optional>
#include <string>
#include <string_view>

namespace qx {

/// A URL (RFC 3986) that keeps its text as it was given; nothing is normalised. Only file URLs
/// have a path. Two URLs are equal when their texts are.
class URL {
 public:
  /// Takes any text; use parse() for text that may not be a URL at all.
  explicit URL(std::string absoluteString) : text_(std::move(absoluteString)) {}

  /// Absent for text that is no URL because it is empty, has no scheme or contains control
  /// characters.
  static std::optional<URL> parse(std::string_view text);

  /// The file URL of an absolute path; bytes outside RFC 3986's unreserved set and "/" are
  /// percent-encoded. A directory URL ends in "/".
  static URL fileURL(std::string_view path, bool isDirectory = false);

  const std::string& absoluteString() const { return text_; }

  /// The percent-decoded path in the file system's representation. Absent for anything but a file
  /// URL of this machine (empty host or "localhost") with an absolute path, and for a path that the
  /// file system cannot carry (an escape that is not one, or an escaped zero byte). Query and
  /// fragment do not belong to the path; a separator at its end does.
  std::optional<std::string> path() const;

  /// Returns the URL of an entry of this directory; adds a separator where there is none.
  URL URLByAppendingPathComponent_isDirectory(std::string_view component, bool isDirectory) const;

  friend bool operator==(const URL&, const URL&) = default;
  friend std::strong_ordering operator<=>(const URL& a, const URL& b) {
    return a.text_.compare(b.text_) <=> 0;
  }

 private:
  std::string text_;
};

}  // namespace qx
