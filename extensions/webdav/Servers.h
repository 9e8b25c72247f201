#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "docsource/remote.h"
#include "extensions/http/HTTP.h"
#include "extensions/webdav/MultiStatus.h"

namespace docsource::webdav {

/// What one server does and does not do. All that is peculiar to servers is here and in
/// Servers.cpp, each with its reason; docs/servers.md has the table. What is not known is believed
/// to be missing.
struct Server {
  /// Announces identifiers of its own: everything else that such servers do comes with it.
  bool isCloud = false;
  /// Compares weak tags in the header `If`, and has no way to be told a path alone as destination.
  bool isApache = false;
  /// A file that is replaced is the old one or the new one, whole, at any time.
  bool putIsWhole = false;
  /// The answer to an upload has the tag by which the upload will be known.
  bool putTellsTag = false;
  bool hasTags = false;
  /// Checks If-Match of an upload, If-None-Match of one, If-Match of a removal.
  bool checksReplacing = false;
  bool checksCreating = false;
  bool checksRemoving = false;
  bool ranges = true;
  /// Sets the modification time to that of the header `Date`, or of `X-OC-Mtime`.
  bool takesDate = false;
  bool takesMtime = false;

  bool checks() const { return hasTags && checksReplacing && checksCreating && checksRemoving; }

  /// What is known from the first answers: to PROPFIND of the top, and to OPTIONS.
  static Server announced(const Resource& top, const http::Answer& options);

  /// The header that makes a request depend on the tag of what it is about.
  std::string condition(const std::string& url, const std::string& tag) const;
};

/// The version of a file, as the mirror keeps it: the tag, or where there is none the time, and the
/// size with it, for servers whose tags are short hashes or times in disguise.
struct Version {
  /// Quoted and strong: a server may call the same tag weak first and strong a second later.
  std::optional<std::string> tag;
  std::int64_t modified = 0;
  std::uint64_t size = 0;

  static std::optional<Version> of(const Resource& resource);
  static Version of(std::string_view tag, std::uint64_t size);
  static std::optional<Version> from(const std::string& text);
  /// Of nothing that was ever seen: what is there now has to be looked at again.
  static std::string unknown();
  std::string text() const;

  /// Known by a time in whole seconds that have hardly passed: there may be another content yet
  /// that looks the same. `now` is the server's own time.
  bool isYoung(std::optional<std::int64_t> now) const {
    return !tag && now && *now <= modified && !isSet(modified, *now);
  }
  /// Further ahead than a server's clock and that of its files can be apart: somebody has given the
  /// file this time, which will not pass, and the next content has another one.
  static bool isSet(std::int64_t modified, std::int64_t now) {
    constexpr std::int64_t minute = 60;
    return modified > now && modified - now > minute;
  }
};

/// Names of what this remote puts among the documents for a while. They hold the server's time at
/// which they were made, since the time of a file survives its renaming.
struct Aside {
  enum class Kind { part, gone };
  Kind kind = Kind::part;
  std::int64_t since = 0;

  static std::string name(Kind kind, std::int64_t now);
  static std::optional<Aside> from(std::string_view name);
};

/// The file by which an account's top is known again.
inline constexpr std::string_view markName = ".docsource-mark";

/// Seconds since 1970; absent for what no date is.
std::optional<std::int64_t> timeOf(const std::string& date);
/// RFC 9110, 5.6.7.
std::string dateOf(std::int64_t time);
/// Sixteen random digits.
std::string randomName();

}  // namespace docsource::webdav
