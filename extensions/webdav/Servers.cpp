// The quirks of servers.

#include "extensions/webdav/Servers.h"

#include <curl/curl.h>
#include <sodium.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <ctime>

namespace docsource::webdav {

using namespace http;

namespace {

constexpr std::string_view asidePrefix = ".docsource-";

template <class Number>
bool readNumber(std::string_view text, Number& number) {
  const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
  return problem == std::errc() && end == text.data() + text.size() && !text.empty();
}

}  // namespace

Server Server::announced(const Resource& top, const Answer& options) {
  Server server;
  const auto dav = options.header("dav").value_or("");
  if (top.identifier) {
    // Nextcloud, ownCloud: a new tag for every change, told with the upload; a file is assembled
    // beside the old one; conditions are checked by the server's own locks.
    server.isCloud = server.putIsWhole = server.putTellsTag = server.hasTags = true;
    server.checksReplacing = server.checksCreating = server.checksRemoving = true;
    server.takesMtime = true;
  } else if (dav.find("apache.org/dav/propset") != std::string_view::npos) {
    // mod_dav writes into a temporary file and renames it. (A move onto a file removes that first.)
    // Tags are weak in the first second, and If-Match never takes a weak one; `If` does.
    server.isApache = server.putIsWhole = true;
  }
  return server;
}

std::string Server::condition(const std::string& url, const std::string& tag) const {
  // Without the URL it would mean the directory above as well.
  if (isApache) return "If: <" + url + "> ([" + tag + "])";
  return "If-Match: " + tag;
}

Version Version::of(std::string_view tag, std::uint64_t size) {
  if (tag.starts_with("W/")) tag.remove_prefix(2);
  std::string text(tag);
  // Some leave the quotes out.
  if (!text.starts_with('"')) text = "\"" + text + "\"";
  return {std::move(text), 0, size};
}

std::optional<Version> Version::of(const Resource& resource) {
  if (!resource.size) return std::nullopt;
  if (resource.tag) return of(*resource.tag, *resource.size);
  const auto modified = resource.modified ? timeOf(*resource.modified) : std::nullopt;
  if (!modified) return std::nullopt;
  return Version{std::nullopt, *modified, *resource.size};
}

std::optional<Version> Version::from(const std::string& text) {
  const auto space = text.rfind(' ');
  Version version;
  if (space == std::string::npos ||
      !readNumber(std::string_view(text).substr(space + 1), version.size)) {
    return std::nullopt;
  }
  const auto first = text.substr(0, space);
  if (first.starts_with('"')) {
    version.tag = first;
    return version;
  }
  return first.starts_with('=') && readNumber(std::string_view(first).substr(1), version.modified)
             ? std::optional(version)
             : std::nullopt;
}

std::string Version::unknown() { return "?" + randomName(); }

std::string Version::text() const {
  return (tag ? *tag : "=" + std::to_string(modified)) + " " + std::to_string(size);
}

std::string Aside::name(Kind kind, std::int64_t now) {
  return std::string(asidePrefix) + std::to_string(now) + "-" + randomName() +
         (kind == Kind::part ? ".part" : ".gone");
}

std::optional<Aside> Aside::from(std::string_view name) {
  if (!name.starts_with(asidePrefix)) return std::nullopt;
  name.remove_prefix(asidePrefix.size());
  Aside aside;
  if (name.ends_with(".gone")) {
    aside.kind = Kind::gone;
  } else if (!name.ends_with(".part")) {
    return std::nullopt;
  }
  const auto dash = name.find('-');
  if (dash == std::string_view::npos || !readNumber(name.substr(0, dash), aside.since)) {
    return std::nullopt;
  }
  return aside;
}

std::optional<std::int64_t> timeOf(const std::string& date) {
  const auto time = curl_getdate(date.c_str(), nullptr);
  return time == -1 ? std::nullopt : std::optional<std::int64_t>(time);
}

std::string dateOf(std::int64_t time) {
  // strftime(3) would follow the locale.
  static constexpr std::array<const char*, 7> days{"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr std::array<const char*, 12> months{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const std::time_t seconds = time;
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  std::array<char, 64> text{};
  const int length = std::snprintf(text.data(), text.size(), "%s, %02d %s %04d %02d:%02d:%02d GMT",
                                   days.at(static_cast<unsigned>(parts.tm_wday)), parts.tm_mday,
                                   months.at(static_cast<unsigned>(parts.tm_mon)),
                                   parts.tm_year + 1900, parts.tm_hour, parts.tm_min, parts.tm_sec);
  return {text.data(), static_cast<std::size_t>(std::clamp(length, 0, 63))};
}

std::string randomName() {
  std::array<unsigned char, 8> bytes{};
  randombytes_buf(bytes.data(), bytes.size());
  std::array<char, 17> text{};
  sodium_bin2hex(text.data(), text.size(), bytes.data(), bytes.size());
  return text.data();
}

}  // namespace docsource::webdav
