// The remote of a WebDAV server. What it relies on everywhere:
//
//  - A version is a tag from PROPFIND, never from GET, and of a server without tags a time. An
//    upload is known by the tag that its answer tells or that its file had before it was moved into
//    place; where there is neither, the document is read back, so that nobody else's upload in
//    between is ever taken for ours.
//  - Nothing is shown before it is whole. Where an upload in place can be seen half, it goes beside
//    and is moved over. Whole is what has the length that was announced, so that an error page with
//    status 200 is no document.
//  - A removal of a directory takes all that is in it. Therefore it is moved aside first, looked at
//    where nobody can put anything into it, and moved back when it is not empty after all.

#include "extensions/webdav/WebDAVRemote.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <unordered_map>
#include <utility>

#include "extensions/http/Content.h"
#include "extensions/http/ItemTrouble.h"
#include "extensions/http/Settings.h"
#include "extensions/webdav/MultiStatus.h"
#include "extensions/webdav/Servers.h"
#include "platform/base/Text.h"

namespace docsource::webdav {

using namespace http;

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// Smaller documents are held in memory while they are uploaded, and can be sent twice.
constexpr std::uint64_t smallSize = 1024UL * 1024;
constexpr seconds partAge{24 * 3600};
constexpr seconds goneAge{3600};
/// What became of a document that a server puts together is asked so often, when its answer is
/// lost.
constexpr milliseconds askAgain{2000};
constexpr unsigned mostQuestions = 300;
/// A download that breaks is resumed as long as each attempt brings this much, and a few times
/// more.
constexpr std::uint64_t progress = 64UL * 1024;
constexpr unsigned mostResumes = 8;
/// File systems count modification times in steps of a few milliseconds.
constexpr milliseconds clockTick{20};
constexpr unsigned mostRewrites = 3;
/// What has just changed is looked at again so soon, and so often.
constexpr milliseconds settling{250};
constexpr unsigned mostWaits = 40;

constexpr std::string_view wantedProperties =
    R"(<?xml version="1.0" encoding="utf-8"?>)"
    R"(<d:propfind xmlns:d="DAV:" xmlns:o="http://owncloud.org/ns"><d:prop><d:resourcetype/>)"
    R"(<d:getetag/><d:getcontentlength/><d:getlastmodified/><o:id/><o:fileid/></d:prop></d:propfind>)";

bool isPlain(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~' || c == '/';
}

std::string encoded(std::string_view path) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::string text;
  for (const char each : path) {
    const auto c = static_cast<unsigned char>(each);
    if (isPlain(c)) {
      text += each;
    } else {
      text += '%';
      text += digits[c >> 4];
      text += digits[c & 15];
    }
  }
  return text;
}

std::string decoded(std::string_view text) {
  std::string path;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned value = 0;
    if (text[i] == '%' && i + 2 < text.size() + 0 &&
        std::from_chars(text.data() + i + 1, text.data() + i + 3, value, 16).ptr ==
            text.data() + i + 3) {
      path += static_cast<char>(value);
      i += 2;
    } else {
      path += text[i];
    }
  }
  return path;
}

/// The path in the href of an answer, without a slash at its end.
std::string pathIn(std::string_view href) {
  const auto scheme = href.find("://");
  if (scheme != std::string_view::npos && href.find('/') > scheme) {
    const auto slash = href.find('/', scheme + 3);
    href = slash == std::string_view::npos ? std::string_view("/") : href.substr(slash);
  }
  std::string path = decoded(href);
  while (path.ends_with('/')) path.pop_back();
  return path;
}

std::string nameIn(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string parentOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

std::string joined(const std::string& directory, const std::string& name) {
  return directory.empty() ? name : directory + "/" + name;
}

/// Names that some servers take and then call otherwise, or do not list.
bool isOdd(const std::string& name) {
  return name.starts_with('.') ||
         std::any_of(name.begin(), name.end(), [](unsigned char c) { return c >= 0x80; });
}

bool hasControls(const std::string& name) {
  return std::any_of(name.begin(), name.end(),
                     [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

std::string shown(const std::string& path) {
  return path.empty() ? "The account's directory" : "\"" + path + "\"";
}

Error problem(RemoteProblem kind, const std::string& path, const std::string& rest) {
  return remoteError(kind, shown(path) + " " + rest);
}

Error changed(const std::string& path) {
  return problem(RemoteProblem::changedMeanwhile, path, "was changed on the server meanwhile.");
}

Error unkept(const std::string& path) {
  return problem(RemoteProblem::notPermitted, path,
                 "has a name that the server does not keep as it is.");
}

Error strange(const std::string& path, const std::string& what) {
  return remoteError(
      RemoteProblem::unreachable,
      "Asked about " + shown(path) + ", something answered that is not the server: " + what + ".");
}

/// What the page that a server sends with an error has as its title, for a person.
std::optional<std::string> titleOf(const std::string& page) {
  constexpr std::string_view opening = "<title>";
  constexpr std::size_t longest = 100;
  const auto begin = page.find(opening);
  const auto end = page.find("</title>", begin);
  if (begin == std::string::npos || end == std::string::npos) return std::nullopt;
  auto title = page.substr(begin + opening.size(), end - begin - opening.size());
  return title.size() <= longest && !hasControls(title) ? std::optional(title) : std::nullopt;
}

/// The error that an answer means.
Error refusal(const Answer& answer, const std::string& path) {
  using enum RemoteProblem;
  const auto status = " (status " + std::to_string(answer.status) + ").";
  switch (answer.status) {
    case 404:
    case 410:
      return problem(notFound, path, "is not on the server.");
    case 409:
      return problem(notFound, path, "has no directory on the server.");
    case 403:
    case 405:
    case 451:
      return problem(notPermitted, path, "may not be used like this on the server" + status);
    case 412:
      return changed(path);
    case 413:
      return problem(failed, path, "is larger than the server takes" + status);
    case 423:
      return problem(failed, path, "is locked by somebody on the server.");
    case 507:
      return problem(noRoom, path, "has no room on the server.");
    default:
      break;
  }
  if (answer.status >= 300 && answer.status < 400) {
    return problem(failed, path, "is somewhere else, says the server" + status);
  }
  const auto title = titleOf(answer.text);
  return problem(
      failed, path,
      "met an error of the server" + (title ? ", which says \"" + *title + "\"" + status : status));
}

/// Of an answer about several, that of the first which failed.
long failureIn(const Answer& answer) {
  long status = 0;
  MultiStatus reader([&](const Resource& resource) -> Result<void> {
    if (status == 0 && resource.status >= 300) status = resource.status;
    return {};
  });
  return reader.feed(answer.text) && reader.finish() && status != 0 ? status : 500;
}

bool is(const Error& error, RemoteProblem kind) { return remoteProblemOf(error) == kind; }

template <class Value>
bool isNotFound(const Result<Value>& result) {
  return !result && is(result.error(), RemoteProblem::notFound);
}

std::int64_t secondsOf(RemoteTime time) {
  return std::chrono::floor<seconds>(time).time_since_epoch().count();
}

class WebDAVRemote final : public Remote {
 public:
  WebDAVRemote(WebDAVOptions options, std::string origin, std::string top)
      : partSize_(options.partSize), session_(std::move(options.connection)) {
    place_.origin = std::move(origin);
    place_.top = std::move(top);
  }

  RemoteCapabilities capabilities() const override;
  Result<std::string> identity(bool create) override;
  Result<void> list(const std::string& path, const Visitor& visit) override;
  Result<RemoteItem> look(const std::string& path) override;
  Result<Changes> changes(const std::string& cursor) override;
  Result<void> read(const std::string& path, const std::string& version, std::uint64_t offset,
                    std::uint64_t length, const Sink& sink) override;
  Result<RemoteItem> write(const std::string& path, const std::optional<std::string>& ifVersion,
                           const RemoteAttributes& attributes, RemoteSource& source) override;
  Result<RemoteItem> makeDirectory(const std::string& path,
                                   const RemoteAttributes& attributes) override;
  Result<RemoteItem> move(const std::string& from, const std::string& to,
                          const std::optional<std::string>& ifVersion) override;
  Result<void> remove(const std::string& path,
                      const std::optional<std::string>& ifVersion) override;
  Result<RemoteItem> setAttributes(const std::string& path,
                                   const std::optional<std::string>& ifVersion,
                                   const RemoteAttributes& attributes) override;

 private:
  /// Where the account is, and at what.
  struct Place {
    /// Scheme, host and port.
    std::string origin;
    /// The path of the top, as bytes, with a slash at its end.
    std::string top;
    /// The same without that slash as the server itself calls it, which differs behind some
    /// proxies.
    std::string called;
    std::string identifier;
    Server server;

    std::string url(const std::string& path, bool isDirectory = false) const {
      return origin + encoded(top + path + (isDirectory && !path.empty() ? "/" : ""));
    }
  };
  /// An item and, where it was asked, the server's own time.
  struct Seen {
    RemoteItem item;
    Resource resource;
    std::optional<std::int64_t> now;
  };
  /// An upload: as a stream, or held in memory.
  struct Content {
    RemoteSource& source;
    SourceUpload stream;
    std::optional<std::string> held;

    explicit Content(RemoteSource& given) : source(given), stream(given) {}
  };

  Result<Place> meet();
  Result<Resource> meetTop(Place& place, const std::string& url);
  Result<std::string> mark(const Place& place, bool create);
  Result<Server> tried(const Place& place);
  std::int64_t now() const;
  Result<void> wait(milliseconds time) {
    if (session_.pacer().pause(time)) return {};
    return remoteError(RemoteProblem::cancelled, "Given up.");
  }

  Result<Answer> ask(const std::string& url, const std::string& path, int depth,
                     const MultiStatus::Visitor& visit);
  Result<Seen> seen(const Place& place, const std::string& path);
  Result<RemoteItem> itemOf(const Place& place, const Resource& resource, std::string name) const;
  /// What is there, when it is what is expected: a file of that version, or (absent) nothing.
  Result<std::optional<Seen>> compare(const Place& place, const std::string& path,
                                      const std::optional<std::string>& ifVersion);
  Result<void> listAll(const Place& place, const std::string& path, const Visitor& visit,
                       bool withAside);
  Result<void> collectChanges(const Place& place, const std::string& path, Changes& changes);

  Result<Answer> put(const Place& place, const std::string& path, Content& content,
                     std::vector<std::string> headers, bool isRepeatable);
  std::vector<std::string> timeHeaders(const Server& server, const RemoteAttributes& attributes);
  Result<RemoteItem> writeInPlace(const Place& place, const std::string& path,
                                  const std::optional<std::string>& ifVersion,
                                  const RemoteAttributes& attributes, Content& content);
  Result<RemoteItem> writeBeside(const Place& place, const std::string& path,
                                 const std::optional<std::string>& ifVersion,
                                 RemoteAttributes attributes, Content& content);
  Result<RemoteItem> writeParts(const Place& place, const std::string& path,
                                const std::string& uploads,
                                const std::optional<std::string>& ifVersion,
                                const RemoteAttributes& attributes, Content& content);
  /// The item that was uploaded, under a version that is that of the upload for certain: the one
  /// that the server told, or (absent) that of what is there when it has the same content.
  /// Otherwise an error; an upload is not believed to have happened because somebody said so.
  Result<RemoteItem> confirmed(const Place& place, const std::string& path, Content& content,
                               const std::optional<std::string>& ifVersion,
                               const std::optional<std::string>& told);
  Result<bool> isContent(const std::string& path, const RemoteItem& item,
                         const std::string& sha256);
  Result<void> checkName(const Place& place, const std::string& path);

  Result<void> readOnce(const Place& place, const std::string& path, const Version& version,
                        std::uint64_t from, std::uint64_t length, std::uint64_t& done,
                        bool& isCertain, std::optional<std::string>& checksum,
                        const std::function<Result<void>(std::string_view)>& sink);

  Result<Answer> moveTo(const Place& place, const std::string& url, const std::string& to,
                        bool isDirectory, std::uint64_t size, bool overwrite,
                        std::vector<std::string> headers);
  Result<void> erase(const std::string& url, const std::string& path,
                     std::vector<std::string> headers);
  Result<void> removeAside(const Place& place, const std::string& path,
                           const std::optional<std::string>& ifVersion);

  const std::uint64_t partSize_;
  Session session_;
  /// The server's clock minus ours, in seconds.
  std::atomic<std::int64_t> clockDifference_{0};
  std::atomic<bool> destinationIsPath_{false};
  /// The server was seen to say the tag of PROPFIND in an answer to GET too.
  std::atomic<bool> tagsAgree_{false};
  mutable std::mutex mutex_;
  Place place_;
  bool hasMet_ = false;
  bool hasTried_ = false;
  /// Of directories, by the hash of their path, the hash of the tag they had when they were listed.
  std::unordered_map<std::size_t, std::size_t> directoryTags_;
};

// ---- What answers there

RemoteCapabilities WebDAVRemote::capabilities() const {
  const std::lock_guard lock(mutex_);
  const auto& server = place_.server;
  RemoteCapabilities capabilities;
  capabilities.identifiers = capabilities.changes = server.isCloud;
  capabilities.conditions = server.putIsWhole && server.checks();
  capabilities.ranges = server.ranges;
  capabilities.modificationTimes = server.takesDate || server.takesMtime;
  return capabilities;
}

std::int64_t WebDAVRemote::now() const {
  return std::chrono::floor<seconds>(std::chrono::system_clock::now()).time_since_epoch().count() +
         clockDifference_;
}

Result<Answer> WebDAVRemote::ask(const std::string& url, const std::string& path, int depth,
                                 const MultiStatus::Visitor& visit) {
  std::size_t entries = 0;
  MultiStatus reader([&](const Resource& resource) -> Result<void> {
    return ++entries <= mostEntries ? visit(resource) : strange(path, "its listing has no end");
  });
  MemoryUpload body(wantedProperties);
  Request request{
      "PROPFIND",
      url,
      {"Depth: " + std::to_string(depth), "Content-Type: application/xml; charset=utf-8"},
      &body};
  request.isRepeatable = request.followsRedirects = true;
  request.begin = [&](const Answer& answer) -> Result<void> {
    if (answer.status == 207) return {};
    return strange(path, "its status is " + std::to_string(answer.status) + " where 207 is due");
  };
  request.take = [&](std::string_view piece) -> Result<bool> {
    auto fed = reader.feed(piece);
    if (!fed) return fed.error();
    return true;
  };
  auto answer = session_.perform(request);
  if (!answer) return answer;
  if (!answer->succeeded()) return refusal(*answer, path);
  if (auto whole = reader.finish(); !whole) return whole.error();
  if (const auto theirs = answer->date("date")) {
    clockDifference_ =
        *theirs -
        std::chrono::floor<seconds>(std::chrono::system_clock::now()).time_since_epoch().count();
  }
  return answer;
}

/// Asks about the top, follows where the server sends to, and takes what it calls it.
Result<Resource> WebDAVRemote::meetTop(Place& place, const std::string& url) {
  std::optional<Resource> top;
  auto answer = ask(url, "", 0, [&](const Resource& resource) -> Result<void> {
    if (!top) top = resource;
    return {};
  });
  if (!answer) {
    if (!is(answer.error(), RemoteProblem::notFound) &&
        !is(answer.error(), RemoteProblem::notPermitted)) {
      return answer.error();
    }
    return remoteError(RemoteProblem::unreachable,
                       "There are no documents at this address: " + answer.error().description());
  }
  if (!top || top->status >= 300 || !top->isCollection) {
    return remoteError(RemoteProblem::unreachable, "There is no directory at this address.");
  }
  const std::string& reached = answer->url;
  const auto path = reached.find('/', reached.find("://") + 3);
  place.origin = reached.substr(0, path);
  place.top = pathIn(reached) + "/";
  place.called = pathIn(top->href);
  place.identifier = top->identifier.value_or("");
  return *std::move(top);
}

Result<WebDAVRemote::Place> WebDAVRemote::meet() {
  Place place;
  {
    const std::lock_guard lock(mutex_);
    if (hasMet_) return place_;
    place = place_;
  }
  const auto origin = place.origin;
  auto top = meetTop(place, place.url(""));
  if (!top) return top.error();
  const auto hostOf = [](const std::string& text) {
    const auto host = text.substr(text.find("://") + 3);
    return host.substr(0, host.find(':'));
  };
  if (hostOf(place.origin) != hostOf(origin)) {
    return remoteError(
        RemoteProblem::unreachable,
        "The server sends to another one: " + place.origin + ". Use that address if you trust it.");
  }
  Request options{"OPTIONS", place.url(""), {}};
  options.isRepeatable = true;
  const auto announced = session_.perform(options);
  if (!announced) return announced.error();
  place.server = Server::announced(*top, *announced);
  const std::lock_guard lock(mutex_);
  if (!std::exchange(hasMet_, true)) place_ = place;
  return place_;
}

Result<std::string> WebDAVRemote::identity(bool create) {
  auto place = meet();
  if (!place) return place.error();
  // Something has to answer now, not only the first time.
  Place again = *place;
  auto top = meetTop(again, place->url(""));
  if (!top) return top.error();
  if (place->server.isCloud) {
    return top->identifier ? Result<std::string>("id:" + *top->identifier)
                           : strange("", "it has no identifier any more");
  }
  auto marked = mark(*place, create);
  if (!marked) return marked;
  {
    const std::lock_guard lock(mutex_);
    if (std::exchange(hasTried_, true)) return marked;
  }
  auto server = tried(*place);
  const std::lock_guard lock(mutex_);
  if (server) {
    place_.server = *server;
  } else {
    hasTried_ = false;
  }
  if (!server) return server.error();
  return marked;
}

/// What the mark at the top says; where none can be left, the address has to do.
Result<std::string> WebDAVRemote::mark(const Place& place, bool create) {
  const std::string address = "url:" + place.url("");
  const std::string path(markName);
  constexpr std::string_view form = "docsource ";
  for (bool isNew = false;; isNew = true) {
    Request request{"GET", place.url(path), {}};
    request.isRepeatable = request.followsRedirects = true;
    const auto answer = session_.perform(request);
    if (!answer) return answer.error();
    if (answer->succeeded()) {
      // Not one that was damaged on its way: the account is known by it for good.
      const auto hex = answer->text.substr(std::min(form.size(), answer->text.size()), 32);
      const bool isMark =
          answer->text == std::string(form) + hex + "\n" && hex.size() == 32 && qx::hexDecode(hex);
      if (!isMark) return strange(path, "it is not the mark that was left");
      return "mark:" + hex;
    }
    // Some servers are told to hide names that begin with a dot.
    const bool isHidden = answer->status == 403;
    if (!isHidden && answer->status != 404 && answer->status != 410) return refusal(*answer, path);
    if (!create || isNew || isHidden) return address;
    const auto text = std::string(form) + randomName() + randomName() + "\n";
    MemoryUpload body(text);
    Request put{"PUT", place.url(path), {"If-None-Match: *"}, &body};
    const auto left = session_.perform(put);
    if (!left) return left.error();
    if (!left->succeeded() && left->status != 412) {
      // Somebody else leaves one as soon as the server is in order again.
      if (left->isOutOfOrder()) return refusal(*left, path);
      return address;
    }
  }
}

/// Finds out by trial what the server does; what needs writing stays unknown where that is refused.
Result<Server> WebDAVRemote::tried(const Place& place) {
  // Two times, to see which header counts.
  constexpr std::int64_t date = 1000000000;
  constexpr std::int64_t mtime = 1000000007;
  constexpr std::string_view text = "trial";
  Server server = place.server;
  const auto path = Aside::name(Aside::Kind::part, now());
  MemoryUpload body(text);
  const auto send = [&](std::string method, std::vector<std::string> headers, bool hasBody) {
    body.rewind();
    return session_.perform(
        {std::move(method), place.url(path), std::move(headers), hasBody ? &body : nullptr});
  };
  const auto made = send(
      "PUT", {"If-None-Match: *", "Date: " + dateOf(date), "X-OC-Mtime: " + std::to_string(mtime)},
      true);
  if (!made) return made.error();
  if (!made->succeeded()) return server;
  const auto there = seen(place, path);
  if (!there) return there.error();
  const auto version = Version::of(there->resource);
  const auto time = there->resource.modified ? timeOf(*there->resource.modified) : std::nullopt;
  server.hasTags = version && version->tag;
  server.takesDate = time == date;
  server.takesMtime = time == mtime;
  const auto told = made->header("etag");
  server.putTellsTag = server.hasTags && told && !told->starts_with("W/") &&
                       Version::of(*told, text.size()).text() == there->item.version;
  // nginx alone sets the time by this header. It uploads into a temporary file and renames it.
  server.putIsWhole |= server.takesDate;
  // lighttpd does the same, and its tags are a hash in decimal; its name alone says nothing, it may
  // stand before another server.
  const auto name = made->header("server").value_or("");
  server.putIsWhole |= name.starts_with("lighttpd") && server.putTellsTag &&
                       told->find_first_not_of("\"0123456789") == std::string_view::npos;

  const auto again = send("PUT", {"If-None-Match: *"}, true);
  if (!again) return again.error();
  server.checksCreating = again->status == 412;
  const auto other = send("PUT", {server.condition(place.url(path), "\"trial\"")}, true);
  if (!other) return other.error();
  server.checksReplacing = other->status == 412;
  const auto part = send("GET", {"Range: bytes=1-2"}, false);
  if (!part) return part.error();
  server.ranges = part->status == 206;
  const auto removed = send("DELETE", {server.condition(place.url(path), "\"trial\"")}, false);
  if (!removed) return removed.error();
  server.checksRemoving = removed->status == 412;
  if (server.checksRemoving) {
    if (const auto gone = send("DELETE", {}, false); !gone) return gone.error();
  }
  return server;
}

// ---- Looking

Result<RemoteItem> WebDAVRemote::itemOf(const Place& place, const Resource& resource,
                                        std::string name) const {
  RemoteItem item;
  item.name = std::move(name);
  item.kind = resource.isCollection ? RemoteKind::directory : RemoteKind::file;
  if (place.server.isCloud) item.identifier = resource.identifier.value_or("");
  if (resource.modified) {
    if (const auto time = timeOf(*resource.modified)) {
      item.modified = RemoteTime(seconds(*time));
    }
  }
  if (resource.isCollection) return item;
  const auto version = Version::of(resource);
  if (!version) {
    return problem(RemoteProblem::failed, item.name,
                   "has neither a tag nor a time, or no size, says the server.");
  }
  item.size = version->size;
  item.version = version->text();
  return item;
}

Result<WebDAVRemote::Seen> WebDAVRemote::seen(const Place& place, const std::string& path) {
  std::optional<Resource> found;
  auto answer = ask(place.url(path), path, 0, [&](const Resource& resource) -> Result<void> {
    if (!found) found = resource;
    return {};
  });
  if (!answer) return answer.error();
  if (!found) return strange(path, "its answer is empty");
  if (found->status >= 300) {
    Answer inner;
    inner.status = found->status;
    return refusal(inner, path);
  }
  auto item = itemOf(place, *found, nameIn(path));
  if (!item) return item.error();
  return Seen{*std::move(item), *std::move(found), answer->date("date")};
}

Result<RemoteItem> WebDAVRemote::look(const std::string& path) {
  auto place = meet();
  if (!place) return place.error();
  auto there = seen(*place, path);
  if (!there) return there.error();
  return std::move(there->item);
}

Result<std::optional<WebDAVRemote::Seen>> WebDAVRemote::compare(
    const Place& place, const std::string& path, const std::optional<std::string>& ifVersion) {
  auto there = seen(place, path);
  if (isNotFound(there)) {
    if (!ifVersion) return std::optional<Seen>();
    return there.error();
  }
  if (!there) return there.error();
  const bool isExpected =
      ifVersion && there->item.kind == RemoteKind::file && there->item.version == *ifVersion;
  if (!isExpected) return changed(path);
  return std::optional(*std::move(there));
}

Result<void> WebDAVRemote::listAll(const Place& place, const std::string& path,
                                   const Visitor& visit, bool withAside) {
  const auto own = path.empty() ? place.called : place.called + "/" + path;
  bool hasSelf = false;
  std::size_t tag = 0;
  std::vector<std::string> old;
  const auto time = now();
  auto answer = ask(place.url(path, true), path, 1, [&](const Resource& resource) -> Result<void> {
    const auto at = pathIn(resource.href);
    if (at == own) {
      if (!resource.isCollection) {
        return problem(RemoteProblem::notFound, path, "is no directory on the server.");
      }
      hasSelf = true;
      tag = std::hash<std::string>()(resource.tag.value_or(""));
      return {};
    }
    if (!at.starts_with(own + "/")) return {};
    auto name = at.substr(own.size() + 1);
    if (resource.status == 404) return {};
    // What is not told about must not look removed.
    const auto leaveOut = [&](std::string why) -> Result<void> {
      RemoteItem item;
      item.name = std::move(name);
      item.trouble = std::move(why);
      visit(item);
      return {};
    };
    if (resource.status >= 300) {
      return leaveOut("the server does not tell about it, status " +
                      std::to_string(resource.status));
    }
    if (!withAside) {
      if (name == markName) return {};
      if (const auto aside = Aside::from(name)) {
        const seconds age(time - aside->since);
        if (aside->kind == Aside::Kind::part) {
          if (age > partAge) old.push_back(name);
          return {};
        }
        // Left behind when something broke off; it may hold what nobody has seen.
        if (age < goneAge) return {};
      }
    }
    auto item = itemOf(place, resource, name);
    if (!item) return leaveOut("the server tells neither a tag nor a time of it, or no size");
    visit(*item);
    return {};
  });
  if (!answer) return answer.error();
  if (!hasSelf) return strange(path, "it tells about something else");
  for (const auto& name : old) {
    const auto left = joined(path, name);
    (void)erase(place.url(left), left, {});
  }
  if (place.server.isCloud && !withAside) {
    const std::lock_guard lock(mutex_);
    directoryTags_[std::hash<std::string>()(path)] = tag;
  }
  return {};
}

Result<void> WebDAVRemote::list(const std::string& path, const Visitor& visit) {
  auto place = meet();
  if (!place) return place.error();
  return listAll(*place, path, visit, false);
}

/// A directory's tag is another one when anything below it has changed. Those that differ from what
/// was listed are looked into; what never was is listed with all below it.
Result<void> WebDAVRemote::collectChanges(const Place& place, const std::string& path,
                                          Changes& changes) {
  const auto own = path.empty() ? place.called : place.called + "/" + path;
  std::vector<std::string> deeper;
  changes.directories.push_back({path, false});
  auto answer = ask(place.url(path, true), path, 1, [&](const Resource& resource) -> Result<void> {
    const auto at = pathIn(resource.href);
    if (!resource.isCollection || !at.starts_with(own + "/")) return {};
    const auto below = joined(path, at.substr(own.size() + 1));
    const std::lock_guard lock(mutex_);
    const auto known = directoryTags_.find(std::hash<std::string>()(below));
    if (known == directoryTags_.end()) {
      changes.directories.push_back({below, true});
    } else if (known->second != std::hash<std::string>()(resource.tag.value_or(""))) {
      deeper.push_back(below);
    }
    return {};
  });
  if (!answer) return answer.error();
  for (const auto& below : deeper) {
    auto collected = collectChanges(place, below, changes);
    // It went while it was looked for: the listing of its parent tells.
    if (!collected && !is(collected.error(), RemoteProblem::notFound)) return collected;
  }
  return {};
}

Result<Remote::Changes> WebDAVRemote::changes(const std::string& cursor) {
  auto place = meet();
  if (!place) return place.error();
  Changes changes;
  if (!place->server.isCloud) {
    changes.cursor = "-";
    changes.everything = true;
    return changes;
  }
  const auto top = seen(*place, "");
  if (!top) return top.error();
  changes.cursor = top->resource.tag.value_or("-");
  if (!cursor.empty() && cursor == changes.cursor) return changes;
  {
    const std::lock_guard lock(mutex_);
    changes.everything =
        cursor.empty() || !directoryTags_.contains(std::hash<std::string>()(std::string()));
  }
  if (changes.everything) return changes;
  auto collected = collectChanges(*place, "", changes);
  if (!collected) return collected.error();
  return changes;
}

// ---- Reading

/// One answer, from where the last one ended. `isCertain` is cleared when the answer does not show
/// that it is of the version.
Result<void> WebDAVRemote::readOnce(const Place& place, const std::string& path,
                                    const Version& version, std::uint64_t from,
                                    std::uint64_t length, std::uint64_t& done, bool& isCertain,
                                    std::optional<std::string>& checksum,
                                    const std::function<Result<void>(std::string_view)>& sink) {
  const auto first = from + done;
  const bool isWhole = first == 0 && length == version.size;
  std::uint64_t skip = 0;
  bool isYoung = false;
  bool isStale = false;
  Request request{"GET", place.url(path), {}};
  request.isContent = true;
  if (!isWhole) {
    request.headers.push_back("Range: bytes=" + std::to_string(first) + "-" +
                              std::to_string(from + length - 1));
  }
  request.isRepeatable = request.followsRedirects = true;
  // What does not look like the version may be another version, or no document at all.
  const auto other = [&](const std::string& what) -> Result<void> {
    auto there = compare(place, path, version.text());
    if (!there) return there.error();
    return strange(path, what);
  };
  request.begin = [&](const Answer& answer) -> Result<void> {
    std::optional<std::uint64_t> total;
    if (answer.status == 206) {
      const auto range = ContentRange::from(answer.header("content-range").value_or(""));
      if (!range || range->first != first) return other("it has another part than was asked for");
      total = range->total;
    } else if (answer.status == 200) {
      skip = first;
      const auto told = answer.header("content-length");
      total = sizeIn(told.value_or(""));
      if (told && !total) return other("its length is none");
    } else {
      return other("its status is " + std::to_string(answer.status));
    }
    if (total && *total != version.size) return other("it has another length than the document");
    const auto tag = answer.header("etag");
    if (version.tag && tag) {
      if (Version::of(*tag, version.size).tag == version.tag) {
        tagsAgree_ = true;
        checksum = answer.header("oc-checksum");
        return {};
      }
      isStale = tagsAgree_;
    }
    if (!version.tag) {
      const auto modified = answer.date("last-modified");
      isYoung = version.isYoung(answer.date("date"));
      if (modified && *modified == version.modified) return {};
    }
    // Some say another tag here than where they list it, or none; and some of those serve what they
    // had a second ago.
    isCertain = false;
    auto there = compare(place, path, version.text());
    if (!there) return there.error();
    const auto& item = (*there)->item;
    if (item.modified && (*there)->now) {
      const auto modified = secondsOf(*item.modified), now = *(*there)->now;
      isYoung |= now - modified < 3 && !Version::isSet(modified, now);
    }
    isYoung |= isStale;
    return {};
  };
  std::optional<Error> refused;
  request.take = [&](std::string_view piece) -> Result<bool> {
    if (isYoung) return false;
    const auto skipped = std::min<std::uint64_t>(skip, piece.size());
    piece.remove_prefix(skipped);
    skip -= skipped;
    const auto wanted = std::min<std::uint64_t>(length - done, piece.size());
    if (wanted > 0) {
      if (auto taken = sink(piece.substr(0, wanted)); !taken) return taken.error();
      done += wanted;
    }
    return wanted == piece.size();
  };
  auto answer = session_.perform(request);
  if (!answer) return answer.error();
  if (answer->status == 416) return other("it does not have that part");
  if (!answer->succeeded()) return refusal(*answer, path);
  if (isYoung) return wait(settling);
  if (done < length) return strange(path, "it ends too early");
  return {};
}

Result<void> WebDAVRemote::read(const std::string& path, const std::string& version,
                                std::uint64_t offset, std::uint64_t length, const Sink& sink) {
  auto place = meet();
  if (!place) return place.error();
  const auto wanted = Version::from(version);
  if (!wanted) return changed(path);
  length = std::min(length, wanted->size - std::min(wanted->size, offset));
  bool isCertain = length > 0;
  bool isOurs = true;
  std::uint64_t done = 0;
  std::optional<std::string> expected;
  std::optional<Checksum> checksum;
  const auto take = [&](std::string_view piece) -> Result<void> {
    if (expected && !checksum && done == 0 && length == wanted->size) {
      checksum = Checksum::named(expected->substr(0, expected->find(':')));
    }
    if (checksum) checksum->add(piece);
    auto taken = sink(piece);
    isOurs = taken.ok();
    return taken;
  };
  for (unsigned resumes = 0, waits = 0; done < length;) {
    const auto before = done;
    auto got = readOnce(*place, path, *wanted, offset, length, done, isCertain, expected, take);
    if (got && (done > before || ++waits < mostWaits)) continue;
    if (got) return strange(path, "it goes on having another tag than the document");
    const bool isBroken = isOurs && is(got.error(), RemoteProblem::unreachable);
    if (!isBroken || done == before) return got;
    if (done - before < progress && ++resumes > mostResumes) return got;
  }
  if (checksum && checksum->text() != expected->substr(expected->find(':') + 1)) {
    return strange(path, "it does not have the document's checksum");
  }
  // A file that is written in place may have changed under the reader's eyes.
  if (isCertain && place->server.putIsWhole) return {};
  auto there = compare(*place, path, version);
  if (!there) return there.error();
  return {};
}

// ---- Writing

Result<Answer> WebDAVRemote::put(const Place& place, const std::string& path, Content& content,
                                 std::vector<std::string> headers, bool isRepeatable) {
  std::optional<MemoryUpload> memory;
  if (content.held) memory.emplace(*content.held);
  headers.emplace_back("Content-Type: application/octet-stream");
  Request request{"PUT", place.url(path), std::move(headers),
                  memory ? static_cast<Upload*>(&*memory) : &content.stream};
  request.isRepeatable = isRepeatable;
  request.work = content.stream.size();
  return session_.perform(request);
}

std::vector<std::string> WebDAVRemote::timeHeaders(const Server& server,
                                                   const RemoteAttributes& attributes) {
  if (!attributes.modified) return {};
  const auto time = secondsOf(*attributes.modified);
  if (server.takesDate) return {"Date: " + dateOf(time)};
  if (server.takesMtime) return {"X-OC-Mtime: " + std::to_string(time)};
  return {};
}

Result<bool> WebDAVRemote::isContent(const std::string& path, const RemoteItem& item,
                                     const std::string& sha256) {
  auto checksum = Checksum::named("SHA256");
  auto got = read(path, item.version, 0, item.size, [&](std::string_view piece) -> Result<void> {
    checksum->add(piece);
    return {};
  });
  if (got) return checksum->text() == sha256;
  const auto kind = remoteProblemOf(got.error());
  if (kind == RemoteProblem::changedMeanwhile || kind == RemoteProblem::notFound) return false;
  return got.error();
}

Result<RemoteItem> WebDAVRemote::confirmed(const Place& place, const std::string& path,
                                           Content& content,
                                           const std::optional<std::string>& ifVersion,
                                           const std::optional<std::string>& told) {
  auto there = seen(place, path);
  const auto size = content.source.size();
  if (!there && !isNotFound(there)) return there.error();
  const bool isFile = there && there->item.kind == RemoteKind::file;
  if (isFile && told && there->item.version == *told) return std::move(there->item);
  if (isFile && !told && there->item.size == size) {
    auto isOurs = isContent(path, there->item, content.stream.sha256());
    if (!isOurs) return isOurs.error();
    if (*isOurs) return std::move(there->item);
  }
  if (!told || (isFile && ifVersion && there->item.version == *ifVersion)) {
    return strange(path, "it took a document that is not there");
  }
  // Somebody has changed it already. The version of what is there now must not be taken for ours.
  RemoteItem item;
  item.name = nameIn(path);
  item.size = size;
  item.version = *told;
  if (there) item.identifier = there->item.identifier;
  return item;
}

/// Whether the server shows what was just made under the name it was given: what it does not list
/// would look removed.
Result<void> WebDAVRemote::checkName(const Place& place, const std::string& path) {
  const auto name = nameIn(path);
  if (!isOdd(name)) return {};
  bool isThere = false;
  auto listed = listAll(
      place, parentOf(path), [&](const RemoteItem& item) { isThere |= item.name == name; }, true);
  if (!listed) return listed;
  if (isThere) return {};
  return unkept(path);
}

Result<RemoteItem> WebDAVRemote::write(const std::string& path,
                                       const std::optional<std::string>& ifVersion,
                                       const RemoteAttributes& attributes, RemoteSource& source) {
  auto place = meet();
  if (!place) return place.error();
  const auto& server = place->server;
  if (ifVersion && !Version::from(*ifVersion)) return changed(path);
  if (!ifVersion && hasControls(nameIn(path))) return unkept(path);
  Content content(source);
  if (source.size() <= (server.isCloud ? partSize_ : smallSize)) {
    auto held = content.stream.take(source.size() + 1);
    if (!held) return held.error();
    content.held = *std::move(held);
  }
  const auto writeOnce = [&]() -> Result<RemoteItem> {
    if (server.isCloud && !content.held) {
      // .../dav/files/USER/..., and beside it .../dav/uploads/USER.
      constexpr std::string_view files = "/dav/files/";
      const auto at = place->top.find(files);
      const auto user = at == std::string::npos ? at : at + files.size();
      const auto end = at == std::string::npos ? at : place->top.find('/', user);
      if (end != std::string::npos) {
        const auto uploads =
            place->top.substr(0, at) + "/dav/uploads/" + place->top.substr(user, end - user);
        return writeParts(*place, path, uploads, ifVersion, attributes, content);
      }
    }
    if (server.putIsWhole && server.checks()) {
      return writeInPlace(*place, path, ifVersion, attributes, content);
    }
    // A time that says for certain which content this is: not that of what is replaced, and past.
    const auto before = ifVersion ? Version::from(*ifVersion) : std::nullopt;
    const bool isTold = server.putIsWhole && server.takesDate && attributes.modified &&
                        secondsOf(*attributes.modified) + 2 <= now() &&
                        !(before && before->modified == secondsOf(*attributes.modified) &&
                          before->size == source.size());
    return isTold ? writeInPlace(*place, path, ifVersion, attributes, content)
                  : writeBeside(*place, path, ifVersion, attributes, content);
  };
  auto written = writeOnce();
  // Tags that are made of the time do not change within a tick of the server's clock.
  for (unsigned i = 0; written && ifVersion && written->version == *ifVersion; ++i) {
    if (i == mostRewrites || !content.held || !session_.pacer().pause(clockTick)) {
      written->version = Version::unknown();
    } else {
      written = writeOnce();
    }
  }
  if (!written || ifVersion) return written;
  if (auto kept = checkName(*place, path); !kept) {
    if (is(kept.error(), RemoteProblem::notPermitted)) (void)remove(path, written->version);
    return kept.error();
  }
  return written;
}

Result<RemoteItem> WebDAVRemote::writeInPlace(const Place& place, const std::string& path,
                                              const std::optional<std::string>& ifVersion,
                                              const RemoteAttributes& attributes,
                                              Content& content) {
  const auto& server = place.server;
  auto headers = timeHeaders(server, attributes);
  if (server.isCloud && content.held) {
    headers.push_back("OC-Checksum: SHA1:" + checksumOf("SHA1", *content.held));
  }
  const auto before = ifVersion ? Version::from(*ifVersion) : std::nullopt;
  std::vector<std::string> conditional = headers;
  if (!server.checks() || (before && !before->tag)) {
    auto there = compare(place, path, ifVersion);
    if (!there) return there.error();
  } else {
    conditional.push_back(before ? server.condition(place.url(path), *before->tag)
                                 : "If-None-Match: *");
  }
  auto answer = put(place, path, content, conditional, false);
  if (!answer) return answer.error();
  if (answer->status == 412) {
    // Some do not take the tags that they give. What is compared here is what it would have been.
    auto there = compare(place, path, ifVersion);
    if (!there) return there.error();
    if (!content.held) {
      return problem(RemoteProblem::failed, path, "has a tag that the server does not take yet.");
    }
    answer = put(place, path, content, headers, false);
    if (!answer) return answer.error();
  }
  if (!answer->succeeded()) {
    // A directory in the way, or none to put it into, is told in many ways.
    auto there = seen(place, path);
    if (there && there->item.kind == RemoteKind::directory) return changed(path);
    if (answer->status == 500 && isNotFound(seen(place, parentOf(path)))) {
      return problem(RemoteProblem::notFound, path, "has no directory on the server.");
    }
    return refusal(*answer, path);
  }
  if (answer->status == 200 && !answer->text.empty())
    return strange(path, "it answers with a page");
  const auto size = content.source.size();
  if (server.takesDate && !server.hasTags) {
    auto there = seen(place, path);
    if (!there && !isNotFound(there)) return there.error();
    const Version own{std::nullopt, secondsOf(*attributes.modified), size};
    if (there && there->item.version == own.text()) return std::move(there->item);
    return strange(path, "it took a document that is not there");
  }
  std::optional<std::string> version;
  auto told = answer->header("oc-etag");
  if (!told) told = answer->header("etag");
  if (server.putTellsTag && told && !told->starts_with("W/")) {
    version = Version::of(*told, size).text();
  }
  return confirmed(place, path, content, ifVersion, version);
}

Result<RemoteItem> WebDAVRemote::writeBeside(const Place& place, const std::string& path,
                                             const std::optional<std::string>& ifVersion,
                                             RemoteAttributes attributes, Content& content) {
  auto before = compare(place, path, ifVersion);
  if (!before) return before.error();
  const auto size = content.source.size();
  // Tags may be made of time and size: another content must not come with both of the old one.
  if (*before && attributes.modified && (*before)->item.size == size && (*before)->item.modified &&
      secondsOf(*(*before)->item.modified) == secondsOf(*attributes.modified)) {
    attributes.modified.reset();
  }
  const auto part = joined(parentOf(path), Aside::name(Aside::Kind::part, now()));
  const auto given = [&](Error error) {
    (void)erase(place.url(part), part, {});
    return error;
  };
  auto answer = put(place, part, content, timeHeaders(place.server, attributes), true);
  if (!answer) return given(answer.error());
  if (!answer->succeeded()) {
    if (!isNotFound(seen(place, parentOf(path)))) return given(refusal(*answer, path));
    return problem(RemoteProblem::notFound, path, "has no directory on the server.");
  }
  std::optional<Seen> uploaded;
  for (bool hasWaited = false;; hasWaited = true) {
    auto there = seen(place, part);
    if (!there) return given(there.error());
    if (there->item.size != size) {
      return given(problem(RemoteProblem::failed, path, "was not kept whole by the server."));
    }
    uploaded = *std::move(there);
    const auto version = Version::from(uploaded->item.version);
    if (!version || !version->isYoung(uploaded->now)) {
      if (!hasWaited && content.held) break;
      auto still = compare(place, path, ifVersion);
      if (!still) return given(still.error());
      break;
    }
    if (auto waited = wait(settling); !waited) return given(waited.error());
  }
  answer = moveTo(place, place.url(part), path, false, size, ifVersion.has_value(), {});
  if (!answer) return given(answer.error());
  if (!answer->succeeded()) return given(refusal(*answer, path));
  auto there = seen(place, path);
  // Some give a new tag to what was moved.
  if (there && there->item.version != uploaded->item.version && there->item.size == size &&
      !(ifVersion && there->item.version == *ifVersion)) {
    auto isOurs = isContent(path, there->item, content.stream.sha256());
    if (isOurs && *isOurs) return std::move(there->item);
  }
  return confirmed(place, path, content, ifVersion, uploaded->item.version);
}

/// In parts into a directory of the server's for uploads, which the last move turns into the
/// document. That move may take longer than a proxy waits: then the server is asked what came of
/// it.
Result<RemoteItem> WebDAVRemote::writeParts(const Place& place, const std::string& path,
                                            const std::string& uploads,
                                            const std::optional<std::string>& ifVersion,
                                            const RemoteAttributes& attributes, Content& content) {
  const auto size = content.source.size();
  const auto directory = place.origin + encoded(uploads + "/docsource-" + randomName());
  const auto destination = "Destination: " + place.url(path);
  const auto total = "OC-Total-Length: " + std::to_string(size);
  auto before = compare(place, path, ifVersion);
  if (!before) return before.error();
  Request make{"MKCOL", directory, {destination}};
  auto answer = session_.perform(make);
  if (!answer) return answer.error();
  if (answer->status == 404 || answer->status == 405 || answer->status == 501) {
    return writeInPlace(place, path, ifVersion, attributes, content);
  }
  if (!answer->succeeded()) return refusal(*answer, path);
  const auto given = [&](Error error) {
    (void)erase(directory, path, {});
    return error;
  };
  // There may be ten thousand parts.
  const auto partSize = std::max<std::uint64_t>(partSize_, size / 9999 + 1);
  for (unsigned number = 1;; ++number) {
    auto bytes = content.stream.take(partSize);
    if (!bytes) return given(bytes.error());
    if (bytes->empty()) break;
    auto name = std::to_string(number);
    name.insert(0, 5 - std::min<std::size_t>(5, name.size()), '0');
    MemoryUpload body(*bytes);
    Request part{"PUT", directory, {destination, total}, &body};
    part.url.append("/").append(name);
    part.isRepeatable = true;
    answer = session_.perform(part);
    if (!answer) return given(answer.error());
    if (!answer->succeeded()) return given(refusal(*answer, path));
  }
  auto headers = timeHeaders(place.server, attributes);
  headers.push_back(total);
  headers.push_back("OC-Checksum: SHA1:" + content.stream.sha1());
  if (ifVersion) {
    headers.push_back("If: <" + place.url(path) + "> ([" + *Version::from(*ifVersion)->tag + "])");
  }
  answer = moveTo(place, directory + "/.file", path, false, content.source.size(),
                  ifVersion.has_value(), headers);
  if (answer && !answer->succeeded()) return given(refusal(*answer, path));
  if (answer) {
    auto told = answer->header("oc-etag");
    if (!told) told = answer->header("etag");
    return confirmed(place, path, content, ifVersion,
                     told ? std::optional(Version::of(*told, size).text()) : std::nullopt);
  }
  if (!is(answer.error(), RemoteProblem::unreachable)) return given(answer.error());
  const auto broken = answer.error();
  for (unsigned question = 0; question < mostQuestions; ++question) {
    if (!session_.pacer().pause(askAgain)) break;
    auto there = seen(place, path);
    const bool isAnother = there && there->item.kind == RemoteKind::file &&
                           there->item.size == size &&
                           (!ifVersion || there->item.version != *ifVersion);
    if (isAnother) return confirmed(place, path, content, ifVersion, std::nullopt);
    if (!there && !isNotFound(there)) continue;
    // As long as the parts are there, it may still be at it.
    const auto parts = ask(directory, path, 0, [](const Resource&) { return Result<void>(); });
    if (isNotFound(parts)) break;
  }
  return broken;
}

Result<RemoteItem> WebDAVRemote::makeDirectory(const std::string& path,
                                               const RemoteAttributes& attributes) {
  auto place = meet();
  if (!place) return place.error();
  if (hasControls(nameIn(path))) return unkept(path);
  // Some say that they have made what was there before.
  auto nothing = compare(*place, path, std::nullopt);
  if (!nothing) return nothing.error();
  auto headers = place->server.takesMtime ? timeHeaders(place->server, attributes)
                                          : std::vector<std::string>();
  auto answer = session_.perform({"MKCOL", place->url(path, true), headers});
  if (!answer) return answer.error();
  if (answer->status == 405) return changed(path);
  if (!answer->succeeded()) return refusal(*answer, path);
  if (auto kept = checkName(*place, path); !kept) {
    if (is(kept.error(), RemoteProblem::notPermitted)) (void)remove(path, std::nullopt);
    return kept.error();
  }
  return look(path);
}

/// RFC 4918 allows a path alone as destination; most servers want all of the URL, and some that are
/// behind a proxy do not know themselves in it.
Result<Answer> WebDAVRemote::moveTo(const Place& place, const std::string& url,
                                    const std::string& to, bool isDirectory, std::uint64_t size,
                                    bool overwrite, std::vector<std::string> headers) {
  headers.emplace_back(overwrite ? "Overwrite: T" : "Overwrite: F");
  const auto whole = place.url(to, isDirectory);
  const auto send = [&](bool isPath) {
    auto all = headers;
    all.push_back("Destination: " + (isPath ? whole.substr(place.origin.size()) : whole));
    Request request{"MOVE", url, std::move(all)};
    request.work = isDirectory ? anyWork : size;
    request.gatewayAnswers = true;
    return session_.perform(request);
  };
  const bool isPath = destinationIsPath_;
  auto answer = send(isPath);
  if (!answer) return answer;
  const auto first = answer->status;
  if (!isPath && (first == 400 || first == 502)) {
    answer = send(true);
    if (!answer) return answer;
    if (answer->succeeded()) destinationIsPath_ = true;
  }
  if (first == 502 && !answer->succeeded()) {
    return strange(to, "whether it was moved is unknown (status 502)");
  }
  if (answer->status == 207) answer->status = failureIn(*answer);
  // No server says 200 but lighttpd, with nothing after it; what comes with a page is no server.
  if (answer->status == 200 && !answer->text.empty()) return strange(to, "it answers with a page");
  return answer;
}

Result<RemoteItem> WebDAVRemote::move(const std::string& from, const std::string& to,
                                      const std::optional<std::string>& ifVersion) {
  auto place = meet();
  if (!place) return place.error();
  if (hasControls(nameIn(to))) return unkept(to);
  const auto source = seen(*place, from);
  if (!source) return source.error();
  const bool isDirectory = source->item.kind == RemoteKind::directory;
  if (ifVersion && (isDirectory || source->item.version != *ifVersion)) return changed(from);
  if (isDirectory && (to + "/").starts_with(from + "/")) {
    return problem(RemoteProblem::failed, from, "cannot be moved into itself.");
  }
  auto answer =
      moveTo(*place, place->url(from, isDirectory), to, isDirectory, source->item.size, false, {});
  if (!answer) return answer.error();
  if (!answer->succeeded()) {
    if (answer->status != 412 && isNotFound(seen(*place, parentOf(to)))) {
      return problem(RemoteProblem::notFound, to, "has no directory on the server.");
    }
    if (answer->status == 400 && isOdd(nameIn(to))) return unkept(to);
    return refusal(*answer, answer->status == 412 ? to : from);
  }
  if (auto kept = checkName(*place, to); !kept) {
    if (is(kept.error(), RemoteProblem::notPermitted)) {
      (void)moveTo(*place, place->url(to, isDirectory), from, isDirectory, source->item.size, false,
                   {});
    }
    return kept.error();
  }
  return look(to);
}

Result<void> WebDAVRemote::erase(const std::string& url, const std::string& path,
                                 std::vector<std::string> headers) {
  Request request{"DELETE", url, std::move(headers)};
  auto answer = session_.perform(request);
  if (!answer) return answer.error();
  if (answer->status == 207) answer->status = failureIn(*answer);
  if (!answer->succeeded()) return refusal(*answer, path);
  if (answer->status == 200 && !answer->text.empty()) {
    // A page of something in between says 200 as well.
    const auto still = ask(url, path, 0, [](const Resource&) { return Result<void>(); });
    if (still) return strange(path, "it says that it removed what is still there");
    if (!isNotFound(still)) return still.error();
  }
  return {};
}

/// Moved to where nobody looks for it, then looked at, then removed or moved back.
Result<void> WebDAVRemote::removeAside(const Place& place, const std::string& path,
                                       const std::optional<std::string>& ifVersion) {
  const bool isDirectory = !ifVersion;
  const auto version = ifVersion ? Version::from(*ifVersion) : std::nullopt;
  const std::uint64_t size = version ? version->size : 0;
  const auto aside = joined(parentOf(path), Aside::name(Aside::Kind::gone, now()));
  auto answer = moveTo(place, place.url(path, isDirectory), aside, isDirectory, size, false, {});
  if (!answer) return answer.error();
  if (!answer->succeeded()) return refusal(*answer, path);
  std::optional<Error> unexpected;
  if (isDirectory) {
    bool isEmpty = true;
    auto listed = listAll(
        place, aside, [&](const RemoteItem&) { isEmpty = false; }, false);
    if (!listed) unexpected = listed.error();
    if (listed && !isEmpty) unexpected = changed(path);
  } else if (auto there = compare(place, aside, ifVersion); !there) {
    unexpected = there.error();
  }
  if (!unexpected) return erase(place.url(aside, isDirectory), path, {});
  (void)moveTo(place, place.url(aside, isDirectory), path, isDirectory, size, false, {});
  return *unexpected;
}

Result<void> WebDAVRemote::remove(const std::string& path,
                                  const std::optional<std::string>& ifVersion) {
  auto place = meet();
  if (!place) return place.error();
  if (path.empty()) {
    return problem(RemoteProblem::notPermitted, path, "of an account is not removed.");
  }
  if (ifVersion) {
    const auto version = Version::from(*ifVersion);
    if (!version) return changed(path);
    if (place->server.checks() && version->tag) {
      auto erased =
          erase(place->url(path), path, {place->server.condition(place->url(path), *version->tag)});
      if (erased || !is(erased.error(), RemoteProblem::changedMeanwhile)) return erased;
    }
    auto there = compare(*place, path, ifVersion);
    if (!there) return there.error();
    return removeAside(*place, path, ifVersion);
  }
  const auto there = seen(*place, path);
  if (!there) return there.error();
  if (there->item.kind != RemoteKind::directory) return changed(path);
  bool isEmpty = true;
  auto listed = listAll(
      *place, path, [&](const RemoteItem&) { isEmpty = false; }, false);
  if (!listed) return listed;
  if (!isEmpty) return changed(path);
  return removeAside(*place, path, std::nullopt);
}

Result<RemoteItem> WebDAVRemote::setAttributes(const std::string& path,
                                               const std::optional<std::string>& ifVersion,
                                               const RemoteAttributes& attributes) {
  auto place = meet();
  if (!place) return place.error();
  auto there = seen(*place, path);
  if (!there) return there.error();
  if (ifVersion && there->item.version != *ifVersion) return changed(path);
  // Of those who keep times, these alone take them afterwards.
  if (!place->server.isCloud || !attributes.modified) return std::move(there->item);
  const auto body =
      R"(<?xml version="1.0" encoding="utf-8"?><d:propertyupdate xmlns:d="DAV:"><d:set>)"
      "<d:prop><d:lastmodified>" +
      std::to_string(secondsOf(*attributes.modified)) +
      "</d:lastmodified></d:prop></d:set></d:propertyupdate>";
  MemoryUpload upload(body);
  Request request{"PROPPATCH",
                  place->url(path, there->item.kind == RemoteKind::directory),
                  {"Content-Type: application/xml; charset=utf-8"},
                  &upload};
  auto answer = session_.perform(request);
  if (!answer) return answer.error();
  if (!answer->succeeded()) return refusal(*answer, path);
  return look(path);
}

}  // namespace

Result<std::unique_ptr<Remote>> makeWebDAVRemote(const account::Settings& setting) {
  WebDAVOptions options;
  options.url = setting(account::urlKey).value_or("");
  options.connection = connectionFrom(setting);
  return makeWebDAVRemote(std::move(options));
}

Result<std::unique_ptr<Remote>> makeWebDAVRemote(WebDAVOptions options) {
  const auto bad = [](const std::string& why) {
    return Error(std::string(remoteErrorDomain), static_cast<std::int64_t>(RemoteProblem::failed),
                 "The address cannot be used: " + why + ".");
  };
  const std::unique_ptr<CURLU, void (*)(CURLU*)> url(curl_url(), &curl_url_cleanup);
  if (!url || curl_url_set(url.get(), CURLUPART_URL, options.url.c_str(), 0) != CURLUE_OK) {
    return bad(options.url.find(' ') == std::string::npos
                   ? "it is no URL, https://HOST/PATH for example"
                   : "it has a space, which is written %20");
  }
  const auto part = [&](CURLUPart which) {
    char* text = nullptr;
    std::optional<std::string> value;
    if (curl_url_get(url.get(), which, &text, 0) == CURLUE_OK && text) value = text;
    curl_free(text);
    return value;
  };
  const auto scheme = part(CURLUPART_SCHEME).value_or("");
  if (scheme != "http" && scheme != "https") return bad("it begins neither with https nor http");
  if (part(CURLUPART_USER) || part(CURLUPART_PASSWORD)) {
    return bad("user and password do not belong into it");
  }
  if (part(CURLUPART_QUERY) || part(CURLUPART_FRAGMENT)) return bad("it has a query or a fragment");
  auto origin = scheme + "://" + part(CURLUPART_HOST).value_or("");
  if (const auto port = part(CURLUPART_PORT)) origin += ":" + *port;
  auto top = decoded(part(CURLUPART_PATH).value_or("/"));
  if (!top.ends_with('/')) top += '/';
  return withItemTroubles(
      std::make_unique<WebDAVRemote>(std::move(options), std::move(origin), std::move(top)));
}

}  // namespace docsource::webdav
