// The remote of an S3 store. What it relies on everywhere:
//
//  - A key is the path below the account's prefix. A directory is there when a key begins with its
//    path and a slash; one that was made, or would vanish with its last entry, has the key
//    "path/" itself, which holds nothing.
//  - An object appears whole, and its version is its tag and size. What a conditional request
//    cannot say to a store that does not check conditions is compared before.
//  - Keys that have no place in a file system stay as they are, are named in the log once, and
//    keep the directory that they are in from being removed.
//  - A listing has no metadata. An object whose tag or time is new is asked for the document's own
//    time and permissions.

#include "extensions/s3/S3Remote.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <unordered_map>
#include <utility>

#include "extensions/http/Content.h"
#include "extensions/http/ItemTrouble.h"
#include "extensions/http/Settings.h"
#include "extensions/s3/XML.h"
#include "platform/base/Text.h"
#include "platform/base/UUID.h"
#include "platform/log/Log.h"

namespace docsource::s3 {

using namespace http;

namespace {

using std::chrono::seconds;
using Parameters = std::map<std::string, std::string>;

constexpr std::size_t longestKey = 1024;
constexpr std::size_t longestName = 255;
/// Of one answer, which has a thousand keys at most.
constexpr std::size_t mostListing = 16UL * 1024 * 1024;
/// So many pages of a listing may have less in them than was asked for.
constexpr std::size_t mostThinPages = 200;
/// Keys that were not asked for and are told of.
constexpr std::size_t mostStrange = 100;
/// So many threads help all those who ask the store for many things.
constexpr std::size_t mostHelping = 12;
/// So many objects of a directory may be without any answer before that is the store's trouble.
constexpr unsigned mostUnanswered = 2;
/// What one request may copy, and a part of what is larger.
constexpr std::uint64_t mostCopied = 5UL << 30U;
constexpr std::uint64_t copiedPart = 1UL << 30U;
constexpr std::uint64_t mostParts = 10000;
/// A download that breaks is resumed as long as each attempt brings this much, and a few times
/// more.
constexpr std::uint64_t progress = 64UL * 1024;
constexpr unsigned mostResumes = 8;
constexpr unsigned defaultMode = 0644;
/// That a directory is there is believed for so long.
constexpr seconds belief{5};

constexpr std::string_view markName = ".docsource-mark";
constexpr std::string_view markForm = "docsource ";
constexpr std::string_view trialName = ".docsource-trial-";
constexpr const char* timeHeader = "x-amz-meta-mtime";
constexpr const char* modeHeader = "x-amz-meta-mode";
/// The versions that came before, the last first, separated by spaces; "-" stands for nothing.
constexpr const char* ancestorsHeader = "x-amz-meta-docsource-before";
constexpr std::size_t mostAncestors = 16;
constexpr std::string_view noAncestor = "-";
/// In versions; no store has it.
constexpr std::string_view unknownTag = "unknown";
constexpr const char* noTag = "\"00000000000000000000000000000000\"";

std::string nameIn(const std::string& path) { return path.substr(path.rfind('/') + 1); }
std::string parentOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}
std::string shown(const std::string& path) {
  return path.empty() ? "The account's directory" : "\"" + path + "\"";
}

Error problem(RemoteProblem kind, const std::string& path, const std::string& rest) {
  return remoteError(kind, shown(path) + " " + rest);
}
Error changed(const std::string& path) {
  return problem(RemoteProblem::changedMeanwhile, path, "was changed at the store meanwhile.");
}
Error missing(const std::string& path) {
  return problem(RemoteProblem::notFound, path, "is not at the store.");
}
Error strange(const std::string& path, const std::string& what) {
  return remoteError(
      RemoteProblem::unreachable,
      "Asked about " + shown(path) + ", something answered that is not the store: " + what + ".");
}
bool is(const Error& error, RemoteProblem kind) { return remoteProblemOf(error) == kind; }
template <class Value>
bool isNotFound(const Result<Value>& result) {
  return !result && is(result.error(), RemoteProblem::notFound);
}

/// What an answer that failed says: codes are the store's, as its reference lists them.
struct Refusal {
  std::string code;
  std::optional<std::string> region;

  static Refusal of(const Answer& answer) {
    Refusal refusal;
    if (const auto error = elementFrom(answer.text); error && error->name == "Error") {
      refusal.code = error->textOf("Code");
      if (const auto* region = error->child("Region")) refusal.region = region->text;
    }
    if (const auto region = answer.header("x-amz-bucket-region")) refusal.region = *region;
    return refusal;
  }
  bool isAboutCredentials() const {
    return code == "InvalidAccessKeyId" || code == "SignatureDoesNotMatch" ||
           code == "ExpiredToken" || code == "InvalidToken" || code == "TokenRefreshRequired";
  }
};

Error refusal(const Answer& answer, const std::string& path) {
  using enum RemoteProblem;
  const auto code = Refusal::of(answer).code;
  const auto said =
      " (status " + std::to_string(answer.status) + (code.empty() ? "" : ", " + code) + ").";
  if (Refusal::of(answer).isAboutCredentials()) {
    return remoteError(notAuthorised, "The store does not accept the key" + said);
  }
  if (code == "RequestTimeTooSkewed") {
    return remoteError(notAuthorised, "The clock of this machine differs from the store's" + said);
  }
  if (code == "NoSuchBucket" || code == "InvalidBucketName") {
    return remoteError(unreachable, "The store has no such bucket" + said);
  }
  if (code == "KeyTooLongError") {
    return problem(notPermitted, path, "has a longer path than the store takes.");
  }
  if (code == "QuotaExceeded" || code == "InsufficientStorage" || answer.status == 507) {
    return problem(noRoom, path, "has no room at the store.");
  }
  if (code == "InvalidObjectState") {
    return problem(notPermitted, path,
                   "is in an archive of the store, from which it has to be "
                   "restored there first.");
  }
  if (answer.status == 404) return missing(path);
  if (answer.status == 412 || code == "ConditionalRequestConflict") return changed(path);
  if (answer.status == 403 || answer.status == 405) {
    return problem(notPermitted, path, "may not be used like this at the store" + said);
  }
  if (answer.status >= 300 && answer.status < 400) {
    return problem(failed, path, "is somewhere else, says the store" + said);
  }
  return problem(failed, path, "met an error of the store" + said);
}

/// Tag and size; the tag without quotes.
struct Version {
  std::string tag;
  std::uint64_t size = 0;

  std::string text() const { return std::to_string(size) + ":" + tag; }
  std::string quoted() const { return "\"" + tag + "\""; }

  static std::optional<Version> of(std::string_view tag, std::uint64_t size) {
    if (tag.starts_with("W/")) tag.remove_prefix(2);
    if (tag.starts_with('"')) tag.remove_prefix(1);
    if (tag.ends_with('"')) tag.remove_suffix(1);
    if (tag.empty()) return std::nullopt;
    return Version{std::string(tag), size};
  }
  static std::optional<Version> from(const std::string& text) {
    std::uint64_t size = 0;
    const auto* const end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, size);
    if (read.ec != std::errc() || read.ptr == end || *read.ptr != ':') return std::nullopt;
    return of({read.ptr + 1, static_cast<std::size_t>(end - read.ptr - 1)}, size);
  }
};

std::optional<std::uint64_t> numberIn(std::string_view text, int base = 10) {
  std::uint64_t number = 0;
  const auto* const end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, number, base);
  if (text.empty() || read.ec != std::errc() || read.ptr != end) return std::nullopt;
  return number;
}

/// Seconds and a fraction since 1970, as other programs write and read them too.
std::string timeText(RemoteTime time) {
  const auto whole = std::chrono::floor<seconds>(time);
  std::array<char, 48> text{};
  std::snprintf(text.data(), text.size(), "%lld.%09lld",
                static_cast<long long>(whole.time_since_epoch().count()),
                static_cast<long long>((time - whole).count()));
  return text.data();
}
std::optional<RemoteTime> timeIn(std::string_view text) {
  const auto dot = text.find('.');
  std::int64_t whole = 0;
  const auto* const end = text.data() + std::min(dot, text.size());
  const auto read = std::from_chars(text.data(), end, whole);
  if (read.ec != std::errc() || read.ptr != end || whole > 1LL << 33 || whole < -(1LL << 33)) {
    return std::nullopt;
  }
  auto digits = std::string(dot == std::string_view::npos ? "" : text.substr(dot + 1));
  digits.resize(9, '0');
  const auto fraction = numberIn(digits);
  if (!fraction) return std::nullopt;
  return RemoteTime(seconds(whole)) + std::chrono::nanoseconds(*fraction);
}
/// "2009-10-12T17:50:30.000Z".
std::optional<RemoteTime> listedTime(std::string_view text) {
  std::tm date{};
  const auto* const end = ::strptime(std::string(text).c_str(), "%Y-%m-%dT%H:%M:%S", &date);
  if (!end) return std::nullopt;
  return RemoteTime(seconds(::timegm(&date)));
}

/// What the metadata of an object says of its document.
struct Attributes {
  std::optional<RemoteTime> modified;
  unsigned mode = defaultMode;

  static Attributes of(const Answer& answer) {
    Attributes attributes;
    if (const auto time = answer.header(timeHeader)) attributes.modified = timeIn(*time);
    const auto mode = answer.header(modeHeader);
    const auto bits = mode ? numberIn(*mode, mode->starts_with('0') ? 8 : 10) : std::nullopt;
    if (bits) attributes.mode = static_cast<unsigned>(*bits) & 0777U;
    return attributes;
  }
};

std::vector<std::string> ancestorsOf(const Answer& answer) {
  std::vector<std::string> ancestors;
  std::string_view rest = answer.header(ancestorsHeader).value_or("");
  while (!rest.empty()) {
    const auto end = std::min(rest.find(' '), rest.size());
    ancestors.emplace_back(rest.substr(0, end) == noAncestor ? "" : rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return ancestors;
}

/// Says of what replaces `last` what came before; with a tag that no header can carry, nothing.
void setAncestors(Parameters& headers, const std::string& last,
                  const std::vector<std::string>& before) {
  headers.erase(ancestorsHeader);
  std::string text;
  for (std::size_t i = 0; i <= std::min(before.size(), mostAncestors - 1); ++i) {
    const auto& each = i == 0 ? last : before[i - 1];
    const bool canBe =
        std::all_of(each.begin(), each.end(), [](unsigned char c) { return c > ' ' && c < 0x7f; });
    if (!canBe) return;
    text.append(text.empty() ? "" : " ").append(each.empty() ? noAncestor : std::string_view(each));
  }
  headers[ancestorsHeader] = text;
}

void setAttributeHeaders(Parameters& headers, const RemoteAttributes& attributes) {
  if (attributes.modified) headers[timeHeader] = timeText(*attributes.modified);
  if (attributes.mode) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "0100%03o", *attributes.mode & 0777U);
    headers[modeHeader] = text.data();
  }
}

/// Calls `work` for each number below `count`, several at a time; the first error ends it. Those
/// who do that at the same time share the threads that there may be.
Result<void> inParallel(std::size_t count, const std::function<Result<void>(std::size_t)>& work) {
  static std::atomic<std::size_t> helping{0};
  std::atomic<std::size_t> next{0};
  std::mutex mutex;
  std::optional<Error> first;
  const auto run = [&] {
    for (;;) {
      const auto number = next++;
      if (number >= count) return;
      const auto done = work(number);
      if (done) continue;
      next = count;
      const std::lock_guard lock(mutex);
      if (!first) first = done.error();
    }
  };
  std::vector<std::thread> threads;
  while (threads.size() + 1 < count && ++helping <= mostHelping) threads.emplace_back(run);
  if (threads.size() + 1 < count) --helping;
  run();
  for (auto& thread : threads) thread.join();
  helping -= threads.size();
  if (first) return *first;
  return {};
}

class S3Remote final : public Remote {
 public:
  S3Remote(S3Options options, std::string bucket, std::string top)
      : options_(std::move(options)),
        bucket_(std::move(bucket)),
        top_(std::move(top)),
        session_(options_.connection),
        region_(options_.region.value_or("us-east-1")) {}

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
  /// Which conditions the store checks, in one step with what it does.
  struct Store {
    bool creating = false;
    bool replacing = false;
    bool completing = false;
    bool removing = false;
  };
  /// A request about a key, or about the bucket.
  struct Call {
    std::string method;
    std::optional<std::string> key;
    Parameters query = {};
    /// By name in lower case.
    Parameters headers = {};
    std::optional<std::string_view> body = {};
    bool isRepeatable = false;
    /// So much the store has to copy or to put together itself, in bytes.
    std::uint64_t work = 0;
    bool isContent = false;
    std::function<Result<void>(const Answer&)> begin = {};
    std::function<Result<bool>(std::string_view)> take = {};
  };
  /// A page of keys.
  struct Page {
    std::vector<Element> objects;
    std::vector<std::string> prefixes;
    /// Keys that were not asked for, and lead elsewhere.
    std::vector<std::string> others;
    std::optional<std::string> next;
  };
  struct Listed {
    std::string key;
    Version version;
  };
  struct Seen {
    RemoteItem item;
    Version version;
    Answer answer;
  };
  struct Asked {
    std::size_t what = 0;
    Attributes attributes;
  };

  std::string keyOf(const std::string& path) const { return top_ + path; }
  std::string directoryKeyOf(const std::string& path) const {
    return path.empty() ? top_ : top_ + path + "/";
  }
  Store store() const {
    const std::lock_guard lock(mutex_);
    return store_;
  }
  std::string originOf(const std::string& region) const {
    return options_.endpoint.value_or("https://s3." + region + ".amazonaws.com");
  }

  Result<Credentials> credentials(bool anew);
  Result<Answer> send(const Call& call);
  /// The same, and an error where the answer is one.
  Result<Answer> ask(const Call& call, const std::string& path);
  /// An answer whose element begins with that name.
  Result<Element> askForXML(const Call& call, const std::string& path, const char* root);
  Result<Page> page(const std::string& prefix, bool isFlat, unsigned most,
                    const std::optional<std::string>& token);
  /// All pages, one after the other.
  Result<void> pages(const std::string& path, bool isFlat,
                     const std::function<Result<void>(Page&)>& take);
  /// At most two keys that begin with it.
  Result<std::vector<std::string>> keysBelow(const std::string& prefix);
  Result<bool> isDirectory(const std::string& path);
  Result<std::string> mark(bool create);
  Result<Store> tried();

  Result<Seen> head(const std::string& path);
  /// A file of that version, or (absent) nothing, neither file nor directory. Where the store
  /// compares nothing itself, `headers` get what came before what is about to be written.
  Result<void> compare(const std::string& path, const std::optional<std::string>& ifVersion,
                       Parameters* headers = nullptr);
  Result<void> checkPlace(const std::string& path);
  void report(const std::string& key, const char* why);
  Result<void> fillIn(const std::string& path, std::vector<RemoteItem>& files);

  Result<Version> put(const std::string& path, const std::optional<std::string>& ifVersion,
                      Parameters headers, std::string_view content);
  Result<Version> putParts(const std::string& path, const std::optional<std::string>& ifVersion,
                           const Parameters& headers, SourceUpload& content);
  /// Begins an upload in parts, has them made, and puts them together.
  Result<Version> inParts(const std::string& path, const Parameters& headers,
                          const Parameters& conditions, std::uint64_t size,
                          const std::function<Result<void>()>& beforeEnd,
                          const std::function<Result<std::string>(const Parameters& query,
                                                                  std::uint64_t number)>& part);
  Result<Version> copy(const std::string& from, const std::string& to, const Version& version,
                       const Parameters& headers);
  Result<void> erase(const std::string& key, const std::string& path,
                     const std::optional<Version>& version);
  /// A directory stays when its last entry goes.
  Result<void> keepDirectory(const std::string& path, const std::string& without);
  Result<std::vector<Listed>> keysOf(const std::string& path);
  Result<bool> isCopy(const std::string& path, const Version& version, const std::string& copy,
                      const Version& copied);
  Result<RemoteItem> moveDirectory(const std::string& from, const std::string& to);

  const S3Options options_;
  const std::string bucket_;
  /// What every key of the account begins with: empty, or with a slash at its end.
  const std::string top_;
  Session session_;
  mutable std::mutex mutex_;
  // Under the mutex.
  std::string region_;
  std::optional<Credentials> credentials_;
  Store store_;
  bool hasTried_ = false;
  std::set<std::string> reported_;
  std::map<std::string, std::chrono::steady_clock::time_point> believed_;
  /// Of each directory that was listed, by name: what an object was when it was asked, and what it
  /// said.
  std::unordered_map<std::string, std::unordered_map<std::string, Asked>> asked_;
};

// ---- Asking

Result<Credentials> S3Remote::credentials(bool anew) {
  {
    const std::lock_guard lock(mutex_);
    if (credentials_ && !anew) return *credentials_;
  }
  auto asked = options_.credentials();
  if (!asked) return remoteError(RemoteProblem::notAuthorised, asked.error().description());
  const std::lock_guard lock(mutex_);
  credentials_ = *asked;
  return asked;
}

Result<Answer> S3Remote::send(const Call& call) {
  constexpr unsigned mostAttempts = 3;
  for (unsigned attempt = 1;; ++attempt) {
    auto who = credentials(false);
    if (!who) return who.error();
    std::string region;
    {
      const std::lock_guard lock(mutex_);
      region = region_;
    }
    const auto origin = originOf(region);
    std::array<char, 32> time{};
    const auto now = std::time(nullptr);
    std::tm date{};
    std::strftime(time.data(), time.size(), "%Y%m%dT%H%M%SZ", ::gmtime_r(&now, &date));

    Signable signable{call.method, "/" + bucket_, queryOf(call.query), call.headers};
    if (call.key) signable.path += "/" + encoded(*call.key, true);
    signable.headers["host"] = origin.substr(origin.find("://") + 3);
    signable.headers["x-amz-date"] = time.data();
    signable.headers["x-amz-content-sha256"] = hashOf(call.body.value_or(""));
    if (who->token) signable.headers["x-amz-security-token"] = *who->token;

    Request request{call.method, origin + signable.path};
    if (!signable.query.empty()) request.url += "?" + signable.query;
    for (const auto& [name, value] : signable.headers) {
      request.headers.emplace_back(name).append(": ").append(value);
    }
    request.headers.push_back("authorization: " +
                              authorization(signable, *who, region, time.data()));
    MemoryUpload upload(call.body.value_or(""));
    if (call.body) request.upload = &upload;
    request.isRepeatable = call.isRepeatable;
    request.work = call.work;
    request.isContent = call.isContent;
    request.begin = call.begin;
    request.take = call.take;
    auto answer = session_.perform(request);
    if (!answer || answer->succeeded() || attempt == mostAttempts) return answer;

    const auto refused = Refusal::of(*answer);
    if (refused.region && !refused.region->empty() && *refused.region != region) {
      const std::lock_guard lock(mutex_);
      region_ = *refused.region;
      continue;
    }
    if (!refused.isAboutCredentials()) return answer;
    // They may have been changed where they are kept.
    const auto fresh = credentials(true);
    if (!fresh) return fresh.error();
    if (*fresh == *who) return answer;
  }
}

Result<Answer> S3Remote::ask(const Call& call, const std::string& path) {
  auto answer = send(call);
  if (answer && !answer->succeeded()) return refusal(*answer, path);
  return answer;
}

/// Some requests fail with status 200 and an error in the answer.
Result<Element> S3Remote::askForXML(const Call& call, const std::string& path, const char* root) {
  std::string text;
  Call whole = call;
  whole.take = [&](std::string_view piece) -> Result<bool> {
    if (text.size() + piece.size() > mostListing) return strange(path, "its answer has no end");
    text += piece;
    return true;
  };
  whole.begin = [&](const Answer&) -> Result<void> {
    text.clear();
    return {};
  };
  auto answer = ask(whole, path);
  if (!answer) return answer.error();
  auto element = elementFrom(text);
  if (element && element->name == "Error") {
    answer->text = text;
    answer->status = 500;
    return refusal(*answer, path);
  }
  if (!element || !element->name.starts_with(root))
    return strange(path, "its answer is something else");
  return *std::move(element);
}

/// As it is encoded in a listing that was asked for so.
std::string decoded(std::string_view text) {
  std::string key;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte =
        text[i] == '%' && i + 2 < text.size() ? qx::hexByte(text.substr(i + 1, 2)) : std::nullopt;
    if (byte) {
      key += static_cast<char>(*byte);
      i += 2;
    } else {
      key += text[i] == '+' ? ' ' : text[i];
    }
  }
  return key;
}

Result<S3Remote::Page> S3Remote::page(const std::string& prefix, bool isFlat, unsigned most,
                                      const std::optional<std::string>& token) {
  Call call{"GET", std::nullopt};
  call.query = {{"list-type", "2"},
                {"prefix", prefix},
                {"encoding-type", "url"},
                {"max-keys", std::to_string(most)}};
  if (!isFlat) call.query["delimiter"] = "/";
  if (token) call.query["continuation-token"] = *token;
  call.isRepeatable = true;
  const auto path = prefix.substr(std::min(top_.size(), prefix.size()));
  auto root = askForXML(call, path, "ListBucketResult");
  if (!root) return root.error();
  const bool isEncoded = root->textOf("EncodingType") == "url";
  Page result;
  for (auto& each : root->children) {
    if (each.name == "Contents") {
      for (auto& part : each.children) {
        if (part.name == "Key" && isEncoded) part.text = decoded(part.text);
      }
      // Without a look at the delimiter a key is a path, and may lead anywhere.
      const auto key = each.textOf("Key");
      if (!key.starts_with(prefix) ||
          (!isFlat && key.find('/', prefix.size()) != std::string_view::npos)) {
        result.others.emplace_back(key);
      } else {
        result.objects.push_back(std::move(each));
      }
    } else if (each.name == "CommonPrefixes") {
      const auto text = each.textOf("Prefix");
      auto below = isEncoded ? decoded(text) : std::string(text);
      const bool isBelow =
          below.starts_with(prefix) && below.find('/', prefix.size()) + 1 >= below.size();
      (isBelow ? result.prefixes : result.others).push_back(std::move(below));
    }
  }
  // What is removed or moved by such a list has to be all of it and nothing else.
  if (isFlat && !result.others.empty()) return strange(path, "it lists something else");
  if (root->textOf("IsTruncated") == "true") {
    result.next = std::string(root->textOf("NextContinuationToken"));
    if (result.next->empty() || result.next == token)
      return strange(path, "its listing has no end");
  }
  return result;
}

Result<void> S3Remote::pages(const std::string& path, bool isFlat,
                             const std::function<Result<void>(Page&)>& take) {
  std::optional<std::string> token;
  std::size_t entries = 0;
  std::size_t count = 0;
  do {
    auto some = page(directoryKeyOf(path), isFlat, options_.pageSize, token);
    if (!some) return some.error();
    token = some->next;
    entries += some->objects.size() + some->prefixes.size() + some->others.size();
    if (entries > mostEntries || ++count > mostThinPages + mostEntries / options_.pageSize) {
      return strange(path, "its listing has no end");
    }
    if (auto taken = take(*some); !taken) return taken;
  } while (token);
  return {};
}

Result<std::vector<std::string>> S3Remote::keysBelow(const std::string& prefix) {
  auto some = page(prefix, true, 2, std::nullopt);
  if (!some) return some.error();
  std::vector<std::string> keys;
  for (const auto& each : some->objects) keys.emplace_back(each.textOf("Key"));
  return keys;
}

Result<bool> S3Remote::isDirectory(const std::string& path) {
  if (path.empty()) return true;
  {
    const std::lock_guard lock(mutex_);
    const auto known = believed_.find(path);
    if (known != believed_.end() && std::chrono::steady_clock::now() - known->second < belief) {
      return true;
    }
  }
  const auto keys = keysBelow(directoryKeyOf(path));
  if (!keys) return keys.error();
  if (keys->empty()) return false;
  constexpr std::size_t mostBelieved = 1000;
  const std::lock_guard lock(mutex_);
  if (believed_.size() >= mostBelieved) believed_.clear();
  believed_[path] = std::chrono::steady_clock::now();
  return true;
}

// ---- What answers there

RemoteCapabilities S3Remote::capabilities() const {
  const auto can = store();
  RemoteCapabilities capabilities;
  capabilities.conditions = can.creating && can.replacing && can.completing && can.removing;
  capabilities.ancestors = !capabilities.conditions;
  capabilities.ranges = true;
  capabilities.modes = capabilities.modificationTimes = !options_.storeTimes;
  return capabilities;
}

Result<std::string> S3Remote::identity(bool create) {
  auto marked = mark(create);
  if (!marked) return marked;
  {
    const std::lock_guard lock(mutex_);
    if (std::exchange(hasTried_, true)) return marked;
  }
  const auto found = tried();
  const std::lock_guard lock(mutex_);
  hasTried_ = found.ok();
  if (!found) return found.error();
  store_ = *found;
  return marked;
}

/// What the mark at the top says; where none can be left, the address has to do.
Result<std::string> S3Remote::mark(bool create) {
  const auto key = keyOf(std::string(markName));
  const std::string address = "s3:" + options_.endpoint.value_or("") + "/" + bucket_ + "/" + top_;
  for (bool isNew = false;; isNew = true) {
    Call get{"GET", key};
    get.isRepeatable = true;
    const auto answer = send(get);
    if (!answer) return answer.error();
    if (answer->succeeded()) {
      // Not one that was damaged on its way: the account is known by it for good.
      const bool isMark = answer->text.starts_with(markForm) &&
                          qx::UUID::parse(std::string_view(answer->text).substr(markForm.size()));
      if (!isMark) return strange("", "its mark is something else");
      return "mark:" + answer->text;
    }
    const auto error = refusal(*answer, std::string(markName));
    if (!is(error, RemoteProblem::notFound)) return error;
    // The same is said where there is nothing at all.
    if (const auto some = keysBelow(top_); !some) {
      return is(some.error(), RemoteProblem::notFound)
                 ? remoteError(RemoteProblem::unreachable, "The store has no such bucket.")
                 : some.error();
    }
    if (!create || isNew) return address;
    const auto text = std::string(markForm) + qx::UUID::random().text();
    Call put{"PUT", key, {}, {{"if-none-match", "*"}}, text};
    auto left = send(put);
    if (left && left->status == 501) {
      put.headers.clear();
      left = send(put);
    }
    if (!left) return left.error();
    // Somebody else leaves one as soon as the store is in order again, or does so now (409).
    if (left->isOutOfOrder() || left->status == 409) return refusal(*left, std::string(markName));
  }
}

/// Finds out by trial what the store checks, on an object of its own that is removed again; where
/// nothing may be written that stays unknown.
Result<S3Remote::Store> S3Remote::tried() {
  Store found;
  const std::string path = std::string(trialName) + qx::UUID::random().text();
  const auto key = keyOf(path);
  const auto put = [&](Parameters headers) {
    return send({"PUT", key, {}, std::move(headers), "trial"});
  };
  auto made = put({});
  if (!made) return made.error();
  if (!made->succeeded()) return found;
  const auto again = put({{"if-none-match", "*"}});
  if (!again) return again.error();
  found.creating = again->status == 412;
  const auto other = put({{"if-match", noTag}});
  if (!other) return other.error();
  found.replacing = other->status == 412;
  if (found.replacing) {
    auto completed = inParts(
        path, {}, {{"if-match", noTag}}, 5, [] { return Result<void>(); },
        [&](const Parameters& query, std::uint64_t number) -> Result<std::string> {
          if (number > 1) return std::string();
          const auto part = ask({"PUT", key, query, {}, "trial"}, path);
          if (!part) return part.error();
          return std::string(part->header("etag").value_or(""));
        });
    found.completing = !completed && is(completed.error(), RemoteProblem::changedMeanwhile);
  }
  const auto removed = send({"DELETE", key, {}, {{"if-match", noTag}}});
  if (!removed) return removed.error();
  found.removing = removed->status == 412;
  const auto gone = send({"DELETE", key});
  if (!gone) return gone.error();
  return found;
}

// ---- Looking

Result<S3Remote::Seen> S3Remote::head(const std::string& path) {
  Call call{"HEAD", keyOf(path)};
  call.isRepeatable = true;
  auto answer = ask(call, path);
  if (!answer) return answer.error();
  const auto size = sizeIn(answer->header("content-length").value_or(""));
  const auto version =
      size ? Version::of(answer->header("etag").value_or(""), *size) : std::nullopt;
  if (!version) return problem(RemoteProblem::failed, path, "has no tag or no size at the store.");
  Seen seen{{}, *version, *std::move(answer)};
  seen.item.name = nameIn(path);
  seen.item.size = *size;
  seen.item.version = version->text();
  if (const auto time = seen.answer.date("last-modified")) {
    seen.item.modified = RemoteTime(seconds(*time));
  }
  seen.item.ancestors = ancestorsOf(seen.answer);
  if (options_.storeTimes) return seen;
  const auto attributes = Attributes::of(seen.answer);
  if (attributes.modified) seen.item.modified = attributes.modified;
  seen.item.mode = attributes.mode;
  return seen;
}

Result<RemoteItem> S3Remote::look(const std::string& path) {
  if (!path.empty()) {
    const auto below = keysBelow(directoryKeyOf(path));
    if (!below) return below.error();
    if (below->empty()) {
      auto seen = head(path);
      if (!seen) return seen.error();
      return std::move(seen->item);
    }
  }
  RemoteItem item;
  item.kind = RemoteKind::directory;
  item.name = nameIn(path);
  return item;
}

Result<void> S3Remote::compare(const std::string& path, const std::optional<std::string>& ifVersion,
                               Parameters* headers) {
  if (!ifVersion) {
    const auto below = keysBelow(directoryKeyOf(path));
    if (!below) return below.error();
    if (!below->empty()) return changed(path);
  }
  const auto seen = head(path);
  if (!seen && (ifVersion || !isNotFound(seen))) return seen.error();
  if (seen && seen->item.version != ifVersion) return changed(path);
  const auto can = store();
  const bool isChecked = ifVersion ? can.replacing && can.completing : can.creating;
  if (headers && !isChecked) {
    setAncestors(*headers, ifVersion.value_or(""),
                 seen ? seen->item.ancestors : std::vector<std::string>());
  }
  return {};
}

void S3Remote::report(const std::string& key, const char* why) {
  {
    constexpr std::size_t most = 10000;
    const std::lock_guard lock(mutex_);
    if (reported_.size() >= most || !reported_.insert(key).second) return;
  }
  DS_LOG("[NOTICE] The key \"%s\" stays at the store and is not shown: %s.", key, why);
}

Result<void> S3Remote::list(const std::string& path, const Visitor& visit) {
  const auto prefix = directoryKeyOf(path);
  std::map<std::string, RemoteItem> files;
  std::set<std::string> directories;
  std::map<std::string, std::string> troubles;
  bool isThere = path.empty();
  const auto hasPlace = [&](const std::string& name, const std::string& key) {
    const bool isLong = name.size() > longestName;
    const bool isGood = !name.empty() && name != "." && name != ".." && !isLong &&
                        name.find('\0') == std::string::npos;
    if (!isGood) report(key, isLong ? "its name is too long" : "it has no place in a directory");
    return isGood;
  };
  const auto listed = pages(path, false, [&](Page& some) -> Result<void> {
    for (const auto& each : some.objects) {
      isThere = true;
      const std::string key(each.textOf("Key"));
      const auto name = key.substr(prefix.size());
      // The directory itself, or what was left here for other purposes.
      if (name.empty() && !prefix.empty()) continue;
      if (path.empty() && (name == markName || name.starts_with(trialName))) continue;
      if (!hasPlace(name, key)) continue;
      const auto size = sizeIn(each.textOf("Size"));
      if (!size) {
        troubles[name] = "the store tells no size of it";
        continue;
      }
      // An object of which the store knows no tag is shown, and cannot be read; what is left out
      // would look removed.
      const auto version =
          Version::of(each.textOf("ETag"), *size).value_or(Version{std::string(unknownTag), *size});
      RemoteItem item;
      item.name = name;
      item.size = *size;
      item.version = version.text();
      item.modified = listedTime(each.textOf("LastModified"));
      files[name] = std::move(item);
    }
    for (const auto& key : some.prefixes) {
      isThere = true;
      auto name = key.substr(prefix.size());
      if (name.ends_with('/')) name.pop_back();
      if (hasPlace(name, key)) directories.insert(std::move(name));
    }
    for (auto& key : some.others) {
      if (troubles.size() < mostStrange) troubles["/" + key] = "the store was not asked for it";
    }
    return {};
  });
  if (!listed) return listed.error();
  if (!isThere) return missing(path);
  std::vector<RemoteItem> shownFiles;
  for (auto& [name, item] : files) {
    if (directories.contains(name)) {
      report(prefix + name, "there is a directory of this name");
    } else {
      shownFiles.push_back(std::move(item));
    }
  }
  if (!options_.storeTimes) {
    if (auto filled = fillIn(path, shownFiles); !filled) return filled;
  }
  for (const auto& name : directories) {
    RemoteItem item;
    item.kind = RemoteKind::directory;
    item.name = name;
    visit(item);
  }
  for (const auto& item : shownFiles) visit(item);
  for (const auto& [name, why] : troubles) {
    RemoteItem item;
    item.name = name;
    item.trouble = why;
    if (!directories.contains(name)) visit(item);
  }
  return {};
}

/// Asks the objects that are new for what a listing does not say.
Result<void> S3Remote::fillIn(const std::string& path, std::vector<RemoteItem>& files) {
  std::unordered_map<std::string, Asked> known;
  {
    const std::lock_guard lock(mutex_);
    if (const auto found = asked_.find(path); found != asked_.end()) {
      known = std::move(found->second);
      asked_.erase(found);
    }
  }
  std::vector<Asked> now(files.size());
  std::atomic<unsigned> unanswered{0};
  auto done = inParallel(files.size(), [&](std::size_t i) -> Result<void> {
    auto& item = files[i];
    const auto listed = item.modified ? item.modified->time_since_epoch().count() : 0;
    const auto what = std::hash<std::string>()(item.version + "@" + std::to_string(listed));
    const auto found = known.find(item.name);
    if (found != known.end() && found->second.what == what) {
      now[i] = found->second;
    } else {
      const auto seen = head(path.empty() ? item.name : path + "/" + item.name);
      // What has gone or changed since is told by the next listing.
      const bool isKnown = seen && seen->item.version == item.version;
      if (!seen && !isNotFound(seen) && !is(seen.error(), RemoteProblem::notPermitted)) {
        // The trouble of one object is not that of all that are beside it; it is asked again.
        const bool isAlone =
            is(seen.error(), RemoteProblem::failed) ||
            (is(seen.error(), RemoteProblem::unreachable) && ++unanswered <= mostUnanswered);
        return isAlone ? Result<void>() : seen.error();
      }
      now[i].what = what;
      if (isKnown) now[i].attributes = Attributes::of(seen->answer);
    }
    if (now[i].attributes.modified) item.modified = now[i].attributes.modified;
    item.mode = now[i].attributes.mode;
    return {};
  });
  if (!done) return done;
  known.clear();
  for (std::size_t i = 0; i < files.size(); ++i) known[files[i].name] = now[i];
  const std::lock_guard lock(mutex_);
  asked_[path] = std::move(known);
  return {};
}

Result<Remote::Changes> S3Remote::changes(const std::string&) {
  Changes changes;
  changes.cursor = "-";
  changes.everything = true;
  return changes;
}

// ---- Reading

Result<void> S3Remote::read(const std::string& path, const std::string& version,
                            std::uint64_t offset, std::uint64_t length, const Sink& sink) {
  const auto wanted = Version::from(version);
  if (!wanted) return changed(path);
  length = std::min(length, wanted->size - std::min(wanted->size, offset));
  if (length == 0) return compare(path, version);
  std::uint64_t done = 0;
  bool isOurs = false;
  for (unsigned resumes = 0; done < length;) {
    const auto before = done;
    const auto first = offset + done;
    std::uint64_t skip = 0;
    Call call{"GET", keyOf(path)};
    call.isContent = true;
    call.headers["if-match"] = wanted->quoted();
    call.headers["range"] =
        "bytes=" + std::to_string(first) + "-" + std::to_string(offset + length - 1);
    call.isRepeatable = true;
    call.begin = [&](const Answer& answer) -> Result<void> {
      const auto told = Version::of(answer.header("etag").value_or(""), wanted->size);
      if (!told) return strange(path, "its answer has no tag");
      if (told->tag != wanted->tag) return changed(path);
      const auto range = ContentRange::from(answer.header("content-range").value_or(""));
      if (answer.status == 206 && (!range || range->first != first)) {
        return strange(path, "it has another part than was asked for");
      }
      const auto total = answer.status == 206
                             ? range->total
                             : sizeIn(answer.header("content-length").value_or(""));
      if (total && *total != wanted->size) {
        return strange(path, "it has another length than the document");
      }
      skip = answer.status == 206 ? 0 : first;
      return {};
    };
    call.take = [&](std::string_view piece) -> Result<bool> {
      const auto skipped = std::min<std::uint64_t>(skip, piece.size());
      piece.remove_prefix(skipped);
      skip -= skipped;
      const auto most = std::min<std::uint64_t>(length - done, piece.size());
      if (most > 0) {
        if (auto taken = sink(piece.substr(0, most)); !taken) {
          isOurs = true;
          return taken.error();
        }
        done += most;
      }
      return done < length;
    };
    const auto answer = ask(call, path);
    if (answer && done == length) return {};
    auto error = answer ? strange(path, "it ends too early") : answer.error();
    const bool isBroken = !isOurs && is(error, RemoteProblem::unreachable) && done > before;
    if (!isBroken || (done - before < progress && ++resumes > mostResumes)) return error;
  }
  return {};
}

// ---- Writing

Result<void> S3Remote::checkPlace(const std::string& path) {
  const auto name = nameIn(path);
  if (!qx::isValidUTF8(path) || directoryKeyOf(path).size() > longestKey || name == markName ||
      (parentOf(path).empty() && name.starts_with(trialName))) {
    return problem(RemoteProblem::notPermitted, path,
                   "has a name that cannot be a key of the store.");
  }
  const auto hasParent = isDirectory(parentOf(path));
  if (!hasParent) return hasParent.error();
  if (*hasParent) return {};
  return problem(RemoteProblem::notFound, path, "has no directory at the store.");
}

Result<Version> S3Remote::put(const std::string& path, const std::optional<std::string>& ifVersion,
                              Parameters headers, std::string_view content) {
  const auto can = store();
  if (ifVersion && can.replacing) {
    headers["if-match"] = Version::from(*ifVersion)->quoted();
  } else if (!ifVersion && can.creating) {
    headers["if-none-match"] = "*";
  }
  if (!(ifVersion && can.replacing)) {
    if (auto compared = compare(path, ifVersion, &headers); !compared) return compared.error();
  }
  headers["content-type"] = "application/octet-stream";
  const auto answer = ask({"PUT", keyOf(path), {}, std::move(headers), content}, path);
  if (!answer) return answer.error();
  auto version = Version::of(answer->header("etag").value_or(""), content.size());
  if (!version) return strange(path, "it took a document without a tag");
  return *std::move(version);
}

Result<Version> S3Remote::inParts(
    const std::string& path, const Parameters& headers, const Parameters& conditions,
    std::uint64_t size, const std::function<Result<void>()>& beforeEnd,
    const std::function<Result<std::string>(const Parameters&, std::uint64_t)>& part) {
  const auto key = keyOf(path);
  const auto begun =
      askForXML({"POST", key, {{"uploads", ""}}, headers, ""}, path, "InitiateMultipartUpload");
  if (!begun) return begun.error();
  const std::string upload(begun->textOf("UploadId"));
  // What is left of an upload that failed costs room until it is given up.
  const auto given = [&](Error error) {
    (void)send({"DELETE", key, {{"uploadId", upload}}});
    return error;
  };
  std::string list = "<CompleteMultipartUpload>";
  for (std::uint64_t number = 1;; ++number) {
    const auto text = std::to_string(number);
    const auto tag = part({{"partNumber", text}, {"uploadId", upload}}, number);
    if (!tag) return given(tag.error());
    if (tag->empty()) break;
    list += "<Part><PartNumber>" + text + "</PartNumber><ETag>" + *tag + "</ETag></Part>";
  }
  list += "</CompleteMultipartUpload>";
  if (auto last = beforeEnd(); !last) return given(last.error());
  Call end{"POST", key, {{"uploadId", upload}}, conditions, list};
  end.work = size;
  const auto done = askForXML(end, path, "CompleteMultipartUpload");
  if (!done) return given(done.error());
  auto version = Version::of(done->textOf("ETag"), size);
  if (!version) return strange(path, "it took a document without a tag");
  return *std::move(version);
}

Result<Version> S3Remote::putParts(const std::string& path,
                                   const std::optional<std::string>& ifVersion,
                                   const Parameters& headers, SourceUpload& content) {
  const auto size = content.size();
  const auto partSize = std::max(options_.partSize, size / (mostParts - 1) + 1);
  const auto can = store();
  Parameters conditions;
  if (ifVersion && can.completing) {
    conditions["if-match"] = Version::from(*ifVersion)->quoted();
  } else if (!ifVersion && can.creating) {
    conditions["if-none-match"] = "*";
  }
  auto all = headers;
  if (auto compared = compare(path, ifVersion, &all); !compared) return compared.error();
  all["content-type"] = "application/octet-stream";
  return inParts(
      path, all, conditions, size, [&] { return compare(path, ifVersion); },
      [&](const Parameters& query, std::uint64_t) -> Result<std::string> {
        const auto bytes = content.take(partSize);
        if (!bytes) return bytes.error();
        if (bytes->empty()) return std::string();
        Call call{"PUT", keyOf(path), query, {}, *bytes};
        call.isRepeatable = true;
        const auto answer = ask(call, path);
        if (!answer) return answer.error();
        std::string tag(answer->header("etag").value_or(""));
        if (tag.empty()) return strange(path, "it took a part without a tag");
        return tag;
      });
}

Result<RemoteItem> S3Remote::write(const std::string& path,
                                   const std::optional<std::string>& ifVersion,
                                   const RemoteAttributes& attributes, RemoteSource& source) {
  if (ifVersion && !Version::from(*ifVersion)) return changed(path);
  if (!ifVersion) {
    if (auto place = checkPlace(path); !place) return place.error();
  }
  Parameters headers;
  if (!options_.storeTimes) setAttributeHeaders(headers, attributes);
  SourceUpload content(source);
  Result<Version> version = Version{};
  if (source.size() <= options_.partSize) {
    const auto held = content.take(source.size() + 1);
    if (!held) return held.error();
    version = put(path, ifVersion, headers, *held);
  } else {
    version = putParts(path, ifVersion, headers, content);
  }
  if (!version) return version.error();
  // That it was taken is believed when it is there.
  auto seen = head(path);
  if (!seen && !isNotFound(seen)) return seen.error();
  if (seen && seen->item.version == version->text()) return std::move(seen->item);
  if (!seen || (ifVersion && seen->item.version == *ifVersion)) {
    return strange(path, "it took a document that is not there");
  }
  // Somebody has changed it already. The version of what is there now must not be taken for ours.
  RemoteItem item;
  item.name = nameIn(path);
  item.size = version->size;
  item.version = version->text();
  return item;
}

Result<RemoteItem> S3Remote::makeDirectory(const std::string& path, const RemoteAttributes&) {
  if (auto place = checkPlace(path); !place) return place.error();
  if (auto nothing = compare(path, std::nullopt); !nothing) return nothing.error();
  Call call{"PUT", directoryKeyOf(path), {}, {}, ""};
  if (store().creating) call.headers["if-none-match"] = "*";
  if (const auto made = ask(call, path); !made) return made.error();
  return look(path);
}

Result<void> S3Remote::erase(const std::string& key, const std::string& path,
                             const std::optional<Version>& version) {
  Call call{"DELETE", key};
  if (version && store().removing) call.headers["if-match"] = version->quoted();
  const auto answer = ask(call, path);
  return answer ? Result<void>() : answer.error();
}

Result<void> S3Remote::keepDirectory(const std::string& path, const std::string& without) {
  if (path.empty()) return {};
  const auto keys = keysBelow(directoryKeyOf(path));
  if (!keys) return keys.error();
  const bool isLast = std::all_of(keys->begin(), keys->end(), [&](const std::string& key) {
    return key == without || key.starts_with(without + "/");
  });
  if (!isLast) return {};
  const auto kept = ask({"PUT", directoryKeyOf(path), {}, {}, ""}, path);
  return kept ? Result<void>() : kept.error();
}

Result<void> S3Remote::remove(const std::string& path,
                              const std::optional<std::string>& ifVersion) {
  if (path.empty()) {
    return problem(RemoteProblem::notPermitted, path, "of an account is not removed.");
  }
  if (ifVersion) {
    const auto version = Version::from(*ifVersion);
    if (!version) return changed(path);
    if (auto compared = compare(path, ifVersion); !compared) return compared;
    if (auto kept = keepDirectory(parentOf(path), keyOf(path)); !kept) return kept;
    if (!store().removing) {
      if (auto compared = compare(path, ifVersion); !compared) return compared;
    }
    return erase(keyOf(path), path, version);
  }
  const auto key = directoryKeyOf(path);
  const auto keys = keysBelow(key);
  if (!keys) return keys.error();
  if (keys->empty()) {
    const auto file = head(path);
    return file ? changed(path) : file.error();
  }
  if (keys->size() > 1 || keys->front() != key) return changed(path);
  if (auto kept = keepDirectory(parentOf(path), keyOf(path)); !kept) return kept;
  {
    const std::lock_guard lock(mutex_);
    believed_.clear();
  }
  return erase(key, path, std::nullopt);
}

/// Within the store, from a key to a key, both below the top.
Result<Version> S3Remote::copy(const std::string& from, const std::string& to,
                               const Version& version, const Parameters& headers) {
  auto all = headers;
  all["x-amz-copy-source"] = "/" + bucket_ + "/" + encoded(keyOf(from), true);
  all["x-amz-copy-source-if-match"] = version.quoted();
  if (version.size <= mostCopied) {
    Call call{"PUT", keyOf(to), {}, all, ""};
    call.work = version.size;
    const auto copied = askForXML(call, to, "CopyObjectResult");
    if (!copied) return copied.error();
    auto made = Version::of(copied->textOf("ETag"), version.size);
    if (!made) return strange(to, "it copied a document and tells no tag");
    return *std::move(made);
  }
  // The metadata does not come along in parts.
  const auto seen = head(from);
  if (!seen) return seen.error();
  Parameters kept;
  for (const auto& [name, value] : seen->answer.headers) {
    if (name.starts_with("x-amz-meta-") || name == "content-type") kept[name] = value;
  }
  return inParts(
      to, kept, {}, version.size, [] { return Result<void>(); },
      [&](const Parameters& query, std::uint64_t number) -> Result<std::string> {
        const auto first = (number - 1) * copiedPart;
        if (first >= version.size) return std::string();
        auto ranged = all;
        ranged["x-amz-copy-source-range"] =
            "bytes=" + std::to_string(first) + "-" +
            std::to_string(std::min(first + copiedPart, version.size) - 1);
        Call call{"PUT", keyOf(to), query, ranged, ""};
        call.work = copiedPart;
        const auto part = askForXML(call, to, "CopyPartResult");
        if (!part) return part.error();
        return std::string(part->textOf("ETag"));
      });
}

/// Every key below a directory, and its own.
Result<std::vector<S3Remote::Listed>> S3Remote::keysOf(const std::string& path) {
  std::vector<Listed> keys;
  const auto listed = pages(path, true, [&](Page& some) -> Result<void> {
    for (const auto& each : some.objects) {
      const auto size = sizeIn(each.textOf("Size"));
      const auto version = size ? Version::of(each.textOf("ETag"), *size) : std::nullopt;
      if (!version) return strange(path, "it lists an object without tag or size");
      keys.push_back({std::string(each.textOf("Key")), *version});
    }
    return {};
  });
  if (!listed) return listed.error();
  return keys;
}

/// Whether an object holds what a copy of another holds, as the store tells it. The copy of an
/// object in parts has a tag of its own, but its time.
Result<bool> S3Remote::isCopy(const std::string& path, const Version& version,
                              const std::string& copy, const Version& copied) {
  if (copied.text() == version.text()) return true;
  if (copied.size != version.size || version.tag.find('-') == std::string::npos) return false;
  const auto one = head(path);
  const auto other = head(copy);
  for (const auto* each : {&one, &other}) {
    if (!*each) return isNotFound(*each) ? Result<bool>(false) : each->error();
  }
  const auto time = one->answer.header(timeHeader);
  return time && other->answer.header(timeHeader) == time && one->item.version == version.text() &&
         other->item.version == copied.text();
}

/// All is copied before anything goes; what changes meanwhile stays where it was, too. Goes on with
/// what an attempt before was broken off at.
Result<RemoteItem> S3Remote::moveDirectory(const std::string& from, const std::string& to) {
  auto listed = keysOf(from);
  if (!listed) return listed.error();
  auto& keys = *listed;
  if (keys.empty()) return missing(from);
  const auto below = [&](const Listed& each) { return each.key.substr(top_.size()); };
  const auto moved = [&](const Listed& each) { return to + below(each).substr(from.size()); };
  for (const auto& each : keys) {
    if (keyOf(moved(each)).size() > longestKey) {
      return problem(RemoteProblem::notPermitted, to, "has longer paths in it than a key may be.");
    }
  }
  const auto there = keysOf(to);
  if (!there) return there.error();
  std::map<std::string, Version> before;
  for (const auto& each : *there) before.emplace(each.key, each.version);
  // Documents are copied first and removed first: directories alone tell nothing of an attempt
  // before. They stay until nothing is in them any more, the deepest go first.
  const auto firstDirectory = std::stable_partition(
      keys.begin(), keys.end(), [](const Listed& each) { return !each.key.ends_with('/'); });
  std::reverse(firstDirectory, keys.end());
  const auto files = static_cast<std::size_t>(firstDirectory - keys.begin());
  const auto isThere = [&](const Listed& each) { return before.contains(keyOf(moved(each))); };
  const auto count = static_cast<std::size_t>(std::count_if(keys.begin(), keys.end(), isThere));
  const bool isBegun = files == 0 || std::any_of(keys.begin(), firstDirectory, isThere);
  // Somebody else's has other things in it, or something else under the same name.
  if (!before.empty() && (!isBegun || count != std::min(before.size(), keys.size()))) {
    return changed(to);
  }
  std::vector<std::optional<Version>> copies(keys.size());
  const auto copyOne = [&](std::size_t i) -> Result<void> {
    if (const auto known = before.find(keyOf(moved(keys[i]))); known != before.end()) {
      const auto same = isCopy(below(keys[i]), keys[i].version, moved(keys[i]), known->second);
      return !same ? same.error() : *same ? Result<void>() : changed(to);
    }
    auto made = copy(below(keys[i]), moved(keys[i]), keys[i].version, {});
    if (!made) return made.error();
    copies[i] = *std::move(made);
    return {};
  };
  auto copied = inParallel(files, copyOne);
  if (copied) {
    copied = inParallel(keys.size() - files, [&](std::size_t i) { return copyOne(files + i); });
  }
  if (!copied) {
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (copies[i]) (void)erase(keyOf(moved(keys[i])), to, copies[i]);
    }
    return copied.error();
  }
  if (auto kept = keepDirectory(parentOf(from), keyOf(from)); !kept) return kept.error();
  {
    const std::lock_guard lock(mutex_);
    believed_.clear();
  }
  const auto eraseMoved = [&](const Listed& each) -> Result<void> {
    if (!store().removing) {
      if (auto same = compare(below(each), each.version.text()); !same) return same;
    }
    return erase(each.key, below(each), each.version);
  };
  auto removed = inParallel(files, [&](std::size_t i) { return eraseMoved(keys[i]); });
  for (auto each = firstDirectory; removed && each != keys.end(); ++each) {
    removed = eraseMoved(*each);
  }
  if (!removed) return removed.error();
  return look(to);
}

/// A copy of the same at its goal is what an attempt before was broken off at.
Result<RemoteItem> S3Remote::move(const std::string& from, const std::string& to,
                                  const std::optional<std::string>& ifVersion) {
  const auto source = look(from);
  if (!source) return source.error();
  const bool isDirectory = source->kind == RemoteKind::directory;
  if (ifVersion && (isDirectory || source->version != *ifVersion)) return changed(from);
  if (isDirectory && (to + "/").starts_with(from + "/")) {
    return problem(RemoteProblem::failed, from, "cannot be moved into itself.");
  }
  if (auto place = checkPlace(to); !place) return place.error();
  const auto there = look(to);
  if (!there && !isNotFound(there)) return there.error();
  if (there && there->kind != source->kind) return changed(to);
  if (isDirectory) return moveDirectory(from, to);
  const auto version = Version::from(source->version);
  std::optional<Version> made;
  if (there) {
    const auto same = isCopy(from, *version, to, *Version::from(there->version));
    if (!same) return same.error();
    if (!*same) return changed(to);
  } else {
    const auto copied = copy(from, to, *version, {});
    if (!copied) return copied.error();
    made = *copied;
  }
  auto removed = remove(from, source->version);
  if (removed || isNotFound(removed)) return look(to);
  if (made) (void)erase(keyOf(to), to, *made);
  return removed.error();
}

Result<RemoteItem> S3Remote::setAttributes(const std::string& path,
                                           const std::optional<std::string>& ifVersion,
                                           const RemoteAttributes& attributes) {
  if (!ifVersion) return look(path);
  auto seen = head(path);
  if (!seen) return seen.error();
  if (seen->item.version != *ifVersion) return changed(path);
  if (options_.storeTimes || seen->version.size > mostCopied) return std::move(seen->item);
  // An object's metadata is changed by copying it onto itself.
  Parameters headers{{"x-amz-metadata-directive", "REPLACE"}};
  for (const auto& [name, value] : seen->answer.headers) {
    if (name.starts_with("x-amz-meta-") || name == "content-type" || name == "cache-control" ||
        name == "content-disposition" || name == "content-encoding" || name == "content-language" ||
        name == "expires" || name == "x-amz-storage-class") {
      headers[name] = value;
    }
  }
  setAttributeHeaders(headers, attributes);
  // Of a document in parts the copy has another tag.
  if (!store().replacing) setAncestors(headers, *ifVersion, seen->item.ancestors);
  const auto copied = copy(path, path, seen->version, headers);
  if (!copied) return copied.error();
  auto now = head(path);
  if (!now) return now.error();
  if (now->item.version != copied->text()) return changed(path);
  return std::move(now->item);
}

/// Two or three lines: the key's identifier, its secret and for a while a token.
Result<Credentials> credentialsFrom(const std::vector<std::string>& lines) {
  if (lines.size() < 2 || lines[1].empty()) {
    return remoteError(RemoteProblem::notAuthorised,
                       "There is no key: its identifier and its secret are two lines.");
  }
  Credentials credentials{lines[0], lines[1], std::nullopt};
  if (lines.size() > 2 && !lines[2].empty()) credentials.token = lines[2];
  return credentials;
}

Result<Credentials> credentialsFromEnvironment() {
  std::vector<std::string> lines;
  for (const char* name : {"AWS_ACCESS_KEY_ID", "AWS_SECRET_ACCESS_KEY", "AWS_SESSION_TOKEN"}) {
    const char* value = std::getenv(name);
    lines.emplace_back(value ? value : "");
  }
  if (!lines[0].empty()) return credentialsFrom(lines);
  return remoteError(
      RemoteProblem::notAuthorised,
      "There is no key: neither a command (--key-command) nor a file (--key-file) tells it, nor "
      "AWS_ACCESS_KEY_ID in the environment.");
}

}  // namespace

Result<std::unique_ptr<Remote>> makeS3Remote(S3Options options) {
  const auto bad = [](const std::string& why) {
    return remoteError(RemoteProblem::failed, "The address cannot be used: " + why + ".");
  };
  constexpr std::string_view scheme = "s3://";
  if (!options.url.starts_with(scheme)) return bad("it does not begin with s3://");
  const auto rest = options.url.substr(scheme.size());
  auto bucket = rest.substr(0, rest.find('/'));
  auto top = bucket.size() < rest.size() ? rest.substr(bucket.size() + 1) : std::string();
  const auto isPlain = [](unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_';
  };
  if (bucket.empty() || !std::all_of(bucket.begin(), bucket.end(), isPlain)) {
    return bad("it names no bucket");
  }
  if (!top.empty() && !top.ends_with('/')) top += '/';
  if (auto& endpoint = options.endpoint) {
    while (endpoint->ends_with('/')) endpoint->pop_back();
    const auto host = endpoint->find("://");
    const bool isHTTP = endpoint->starts_with("https://") || endpoint->starts_with("http://");
    if (!isHTTP || endpoint->size() == host + 3 ||
        endpoint->find_first_of("/?#@ ", host + 3) != std::string::npos) {
      return bad("the endpoint is no https://HOST or http://HOST:PORT");
    }
    // A host is signed as it is sent, which is without the port that goes without saying.
    for (const std::string_view port : {endpoint->starts_with("https:") ? ":443" : ":80"}) {
      if (endpoint->ends_with(port)) endpoint->resize(endpoint->size() - port.size());
    }
  }
  if (!options.credentials) options.credentials = credentialsFromEnvironment;
  return withItemTroubles(
      std::make_unique<S3Remote>(std::move(options), std::move(bucket), std::move(top)));
}

Result<std::unique_ptr<Remote>> makeS3Remote(const account::Settings& setting) {
  S3Options options;
  options.url = setting(account::urlKey).value_or("");
  options.endpoint = setting(account::endpointKey);
  options.region = setting(account::regionKey);
  options.storeTimes = setting(account::timesKey) == "store";
  options.connection = connectionFrom(setting);
  // A request is signed; nothing else tells who asks.
  options.connection.secret = {};
  if (const auto lines = secretFrom(setting)) {
    options.credentials = [lines]() -> Result<Credentials> {
      const auto told = lines();
      return told ? credentialsFrom(*told) : told.error();
    };
  }
  return makeS3Remote(std::move(options));
}

}  // namespace docsource::s3
