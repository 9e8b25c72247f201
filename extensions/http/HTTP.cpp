// HTTP by libcurl(3). Each handle is used by one thread at a time and keeps its connection, its TLS
// session and what it knows of a digest; handles are never reset, every option is set each time.
// Only HTTP/1.1 is spoken: an upload that is broken off must be seen as such by every server and
// every proxy on the way, and there a missing rest of the announced length says so.

#include "extensions/http/HTTP.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <utility>

namespace docsource::http {
namespace {

constexpr std::size_t mostText = 64UL * 1024;
/// Less than libcurl takes, which says of more that there is no memory.
constexpr std::size_t mostHeaders = 64UL * 1024;
/// Of an answer that nobody takes.
constexpr std::size_t mostSkipped = 16UL * 1024 * 1024;
constexpr std::size_t mostIdle = 8;
/// Of what the socket has, so much at once (the largest that there was before 7.88,
/// CURLOPT_BUFFERSIZE(3)).
constexpr long bufferSize = 512L << 10;
constexpr long mostRedirects = 5;
/// The way to log in is learned from the first refusal, and a password may have changed since.
constexpr unsigned mostRefusals = 3;
constexpr std::chrono::seconds connectPatience{20};
/// Bytes in a second, of requests that are not about content: others wait behind them.
constexpr long leastSpeed = 1024;
constexpr std::uint64_t littleContent = 64UL * 1024;

std::string lowered(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view white = " \t\r\n";
  const auto first = text.find_first_not_of(white);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(white) - first + 1);
}

/// Host and path for a sentence: never what comes before an "@" or after a "?".
std::string shown(const std::string& url) {
  auto text = url.substr(0, url.find_first_of("?#"));
  const auto host = text.find("://") + 3;
  const auto at = text.rfind('@', text.find('/', host));
  if (at != std::string::npos && at >= host) text.erase(host, at + 1 - host);
  return text;
}

/// Retry-After (RFC 9110, 10.2.3). A date counts from the server's own clock.
std::optional<std::chrono::seconds> retryAfter(const Answer& answer) {
  const auto text = answer.header("retry-after");
  if (!text) return std::nullopt;
  std::int64_t seconds = 0;
  const auto [end, problem] = std::from_chars(text->data(), text->data() + text->size(), seconds);
  if (problem == std::errc() && end == text->data() + text->size()) {
    return std::chrono::seconds(std::max<std::int64_t>(seconds, 0));
  }
  const auto then = answer.date("retry-after");
  const auto now = answer.date("date");
  if (!then || !now) return std::nullopt;
  return std::chrono::seconds(std::max<std::int64_t>(*then - *now, 0));
}

/// The host to which a redirection leads, when that is another one than the request's.
std::optional<std::string> otherHost(const std::string& url, const std::string& location) {
  const std::unique_ptr<CURLU, void (*)(CURLU*)> address(curl_url(), &curl_url_cleanup);
  const auto hostAfter = [&](const std::string& part) {
    char* host = nullptr;
    curl_url_set(address.get(), CURLUPART_URL, part.c_str(), CURLU_NON_SUPPORT_SCHEME);
    curl_url_get(address.get(), CURLUPART_HOST, &host, 0);
    std::string text = lowered(host ? host : "");
    curl_free(host);
    return text;
  };
  const auto own = hostAfter(url);
  auto other = hostAfter(location);
  return other == own ? std::nullopt : std::optional(std::move(other));
}

struct FreeList {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

}  // namespace

std::optional<std::string_view> Answer::header(std::string_view name) const {
  const auto found = headers.find(name);
  return found == headers.end() ? std::nullopt : std::optional<std::string_view>(found->second);
}

std::optional<std::int64_t> Answer::date(std::string_view name) const {
  const auto value = header(name);
  const auto time = value ? curl_getdate(std::string(*value).c_str(), nullptr) : -1;
  return time == -1 ? std::nullopt : std::optional<std::int64_t>(time);
}

std::optional<std::uint64_t> sizeIn(std::string_view text) {
  std::uint64_t size = 0;
  const auto* const end = text.data() + text.size();
  const auto [rest, problem] = std::from_chars(text.data(), end, size);
  const bool isSize = !text.empty() && problem == std::errc() && rest == end && size <= INT64_MAX;
  return isSize ? std::optional(size) : std::nullopt;
}

std::optional<ContentRange> ContentRange::from(std::string_view text) {
  constexpr std::string_view unit = "bytes ";
  const auto dash = text.find('-');
  const auto slash = text.find('/');
  if (!text.starts_with(unit) || dash == std::string_view::npos ||
      slash == std::string_view::npos) {
    return std::nullopt;
  }
  const auto first = sizeIn(text.substr(unit.size(), dash - unit.size()));
  const auto total = sizeIn(text.substr(slash + 1));
  if (!first || (!total && text.substr(slash + 1) != "*")) return std::nullopt;
  return ContentRange{*first, total};
}

class Session::Handle {
 public:
  Handle() : curl_(curl_easy_init(), &curl_easy_cleanup) {}
  template <class Value>
  void set(CURLoption option, Value value) {
    curl_easy_setopt(curl_.get(), option, value);
  }
  void set(CURLoption option, const std::optional<std::string>& value) {
    set(option, value ? value->c_str() : nullptr);
  }
  CURL* get() const { return curl_.get(); }

 private:
  std::unique_ptr<CURL, void (*)(CURL*)> curl_;
};

/// One attempt under way, as libcurl calls back.
struct Session::Transfer {
  const Request& request;
  Answer answer;
  std::optional<Error> error;
  std::size_t headerBytes = 0;
  std::size_t skipped = 0;
  bool hasBegun = false;
  bool hasTaken = false;
  bool isEnough = false;

  Error endless(const std::string& what) const {
    return remoteError(RemoteProblem::unreachable,
                       shown(request.url) + " cannot be understood: " + what + ".");
  }

  bool begin() {
    if (std::exchange(hasBegun, true) || !request.begin || !answer.succeeded()) return true;
    auto begun = request.begin(answer);
    if (!begun) error = begun.error();
    return begun.ok();
  }

  static std::size_t onHeader(const char* data, std::size_t, std::size_t size, void* self) {
    auto& transfer = *static_cast<Transfer*>(self);
    const std::string_view line = trimmed({data, size});
    transfer.headerBytes += size;
    if (transfer.headerBytes > mostHeaders) {
      transfer.error = transfer.endless("the headers of its answer have no end");
      return 0;
    }
    if (line.starts_with("HTTP/")) {
      transfer.answer = {};
      const auto space = line.find(' ');
      if (space != std::string_view::npos) {
        std::from_chars(line.data() + space + 1, line.data() + line.size(), transfer.answer.status);
      }
      return size;
    }
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) return size;
    const auto name = lowered(line.substr(0, colon));
    const std::string said(trimmed(line.substr(colon + 1)));
    // Who owns the server could look around where only this machine gets.
    if (name == "location" && transfer.request.followsRedirects &&
        transfer.answer.status / 100 == 3) {
      if (const auto other = otherHost(transfer.request.url, said)) {
        transfer.error =
            remoteError(RemoteProblem::unreachable, "The server sends to another one: " + *other +
                                                        ". Use that address if you trust it.");
        return 0;
      }
    }
    auto& value = transfer.answer.headers[name];
    if (!value.empty()) value += ", ";
    value += said;
    return size;
  }

  static std::size_t onData(const char* data, std::size_t, std::size_t size, void* self) {
    auto& transfer = *static_cast<Transfer*>(self);
    auto& answer = transfer.answer;
    if (!transfer.begin()) return CURL_WRITEFUNC_ERROR;
    if (!transfer.request.take || !answer.succeeded()) {
      answer.text.append(data, std::min(size, mostText - std::min(mostText, answer.text.size())));
      transfer.skipped += size;
      if (transfer.skipped <= mostSkipped) return size;
      transfer.error = transfer.endless("its answer has no end");
      return CURL_WRITEFUNC_ERROR;
    }
    transfer.hasTaken = true;
    const auto more = transfer.request.take({data, size});
    if (!more) transfer.error = more.error();
    transfer.isEnough = more && !*more;
    return more && *more ? size : CURL_WRITEFUNC_ERROR;
  }

  static std::size_t onRead(char* into, std::size_t, std::size_t most, void* self) {
    auto& transfer = *static_cast<Transfer*>(self);
    const auto count = transfer.request.upload->read(into, most);
    if (count) return *count;
    transfer.error = count.error();
    return CURL_READFUNC_ABORT;
  }

  static int onSeek(void* self, curl_off_t offset, int origin) {
    auto& transfer = *static_cast<Transfer*>(self);
    return offset == 0 && origin == SEEK_SET && transfer.request.upload->rewind()
               ? CURL_SEEKFUNC_OK
               : CURL_SEEKFUNC_FAIL;
  }
};

Session::Session(ConnectionOptions options) : options_(std::move(options)), pacer_(options_.wait) {
  static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
  (void)initialised;
  if (options_.isBearer) scheme_ = CURLAUTH_BEARER;
}

Session::~Session() { pacer_.stop(); }

std::unique_ptr<Session::Handle> Session::acquire() {
  {
    const std::lock_guard lock(mutex_);
    if (!idle_.empty()) {
      auto handle = std::move(idle_.back());
      idle_.pop_back();
      return handle;
    }
  }
  return std::make_unique<Handle>();
}

void Session::release(std::unique_ptr<Handle> handle) {
  const std::lock_guard lock(mutex_);
  if (idle_.size() < mostIdle) idle_.push_back(std::move(handle));
}

Result<std::optional<std::string>> Session::secret(bool anew) {
  if (!options_.secret) return std::optional<std::string>();
  {
    const std::lock_guard lock(mutex_);
    if (secret_ && !anew) return secret_;
  }
  auto asked = options_.secret();
  if (!asked) return remoteError(RemoteProblem::notAuthorised, asked.error().description());
  const std::lock_guard lock(mutex_);
  secret_ = *asked;
  return secret_;
}

long Session::schemeIn(const Answer& answer, bool isSecure) const {
  const auto offered = lowered(answer.header("www-authenticate").value_or(""));
  const auto offers = [&](std::string_view name) {
    const auto at = offered.find(name);
    return at != std::string::npos && (at == 0 || offered[at - 1] == ' ' || offered[at - 1] == ',');
  };
  if (options_.isBearer) return CURLAUTH_BEARER;
  // Inside TLS a password is as safe as a digest of it, and takes one request less.
  if (isSecure && offers("basic")) return CURLAUTH_BASIC;
  if (offers("digest")) return CURLAUTH_DIGEST;
  return offers("basic") ? CURLAUTH_BASIC : 0;
}

Result<bool> Session::authorise(const Answer& answer, const Request& request, long sentScheme,
                                unsigned& refusals, bool& hasAskedAnew) {
  const auto refused = [&](std::string sentence) {
    return remoteError(RemoteProblem::notAuthorised, std::move(sentence));
  };
  const auto host = shown(request.url);
  const auto unaccepted = host + " does not accept the " +
                          (options_.isBearer ? "token." : "user name or the password.");
  if (answer.status == 407) return refused("The proxy before " + host + " wants a password.");
  if (!options_.secret)
    return refused(host +
                   " wants a user and a password (--user, --password-command or --password-file).");
  const bool isSecure = request.url.starts_with("https:");
  const long scheme = schemeIn(answer, isSecure);
  if (scheme == 0) return refused(host + " wants a way to log in that is not known here.");
  scheme_ = scheme;
  if (++refusals > mostRefusals) {
    return refused(unaccepted);
  }
  if (sentScheme != scheme) return true;
  const auto before = secret(false);
  if (!before) return before.error();
  if (!std::exchange(hasAskedAnew, true)) {
    // It may have been changed where it is kept.
    const auto now = secret(true);
    if (!now) return now.error();
    if (*now != *before) return true;
  }
  return refused(unaccepted);
}

Result<Answer> Session::perform(const Request& request) {
  unsigned refusals = 0;
  bool hasAskedAnew = false;
  for (unsigned number = 1;; ++number) {
    if (const auto left = pacer_.turn()) {
      return remoteError(RemoteProblem::notNow, "The server asked to be left alone for a while.",
                         left);
    }
    const long scheme = scheme_;
    std::optional<std::string> password;
    if (scheme != 0) {
      auto asked = secret(false);
      if (!asked) return asked.error();
      password = *std::move(asked);
    }

    Transfer transfer{request, {}, {}};
    std::unique_ptr<curl_slist, FreeList> headers;
    const auto add = [&](const char* line) {
      headers.reset(curl_slist_append(headers.release(), line));
    };
    for (const auto& line : request.headers) add(line.c_str());
    // What can be sent twice need not wait until the server says that it wants it; not all do.
    if (request.upload && request.upload->isShort()) add("Expect:");
    constexpr std::uint64_t workInASecond = 4UL << 20U;
    constexpr std::uint64_t mostPatience = 600;
    const auto patience = std::max(
        options_.patience, std::chrono::seconds(std::min(
                               mostPatience, static_cast<std::uint64_t>(options_.patience.count()) +
                                                 request.work / workInASecond)));
    std::array<char, CURL_ERROR_SIZE> text{};
    auto handle = acquire();
    handle->set(CURLOPT_NOSIGNAL, 1L);
    handle->set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    handle->set(CURLOPT_USERAGENT, "DocSource/1.0");
    handle->set(CURLOPT_BUFFERSIZE, bufferSize);
    handle->set(CURLOPT_URL, request.url.c_str());
    handle->set(CURLOPT_PATH_AS_IS, 1L);
    handle->set(CURLOPT_PROTOCOLS_STR, "http,https");
    handle->set(CURLOPT_REDIR_PROTOCOLS_STR,
                request.url.starts_with("https:") ? "https" : "http,https");
    handle->set(CURLOPT_FOLLOWLOCATION, request.followsRedirects ? 1L : 0L);
    handle->set(CURLOPT_MAXREDIRS, mostRedirects);
    handle->set(CURLOPT_UPLOAD, request.upload ? 1L : 0L);
    if (!request.upload) handle->set(CURLOPT_HTTPGET, 1L);
    handle->set(CURLOPT_INFILESIZE_LARGE,
                request.upload ? static_cast<curl_off_t>(request.upload->size()) : curl_off_t{-1});
    handle->set(CURLOPT_NOBODY, request.method == "HEAD" ? 1L : 0L);
    handle->set(CURLOPT_CUSTOMREQUEST, request.method == "HEAD" ? nullptr : request.method.c_str());
    handle->set(CURLOPT_HTTPHEADER, headers.get());
    handle->set(CURLOPT_HEADERFUNCTION, &Transfer::onHeader);
    handle->set(CURLOPT_HEADERDATA, static_cast<void*>(&transfer));
    handle->set(CURLOPT_WRITEFUNCTION, &Transfer::onData);
    handle->set(CURLOPT_WRITEDATA, static_cast<void*>(&transfer));
    handle->set(CURLOPT_READFUNCTION, &Transfer::onRead);
    handle->set(CURLOPT_READDATA, static_cast<void*>(&transfer));
    handle->set(CURLOPT_SEEKFUNCTION, &Transfer::onSeek);
    handle->set(CURLOPT_SEEKDATA, static_cast<void*>(&transfer));
    handle->set(CURLOPT_ERRORBUFFER, text.data());
    handle->set(CURLOPT_CONNECTTIMEOUT,
                static_cast<long>(std::min(patience, connectPatience).count()));
    const bool isLittle = !request.isContent && request.work == 0 &&
                          (!request.upload || request.upload->size() < littleContent);
    handle->set(CURLOPT_LOW_SPEED_LIMIT, isLittle ? leastSpeed : 1L);
    handle->set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(patience.count()));
    handle->set(CURLOPT_HTTPAUTH, scheme == 0 ? static_cast<long>(CURLAUTH_NONE) : scheme);
    const bool isBearer = scheme == CURLAUTH_BEARER;
    handle->set(CURLOPT_USERNAME, scheme == 0 || isBearer ? std::nullopt : options_.user);
    handle->set(CURLOPT_PASSWORD, isBearer ? std::nullopt : password);
    handle->set(CURLOPT_XOAUTH2_BEARER, isBearer ? password : std::nullopt);
    handle->set(CURLOPT_SSL_VERIFYPEER, 1L);
    handle->set(CURLOPT_SSL_VERIFYHOST, 2L);
    if (options_.authority) handle->set(CURLOPT_CAINFO, options_.authority);
    handle->set(CURLOPT_SSLCERT, options_.clientCertificate);
    handle->set(CURLOPT_SSLKEY, options_.clientKey);
    handle->set(CURLOPT_PROXY, options_.proxy);
    // Whoever names a proxy for an account means it for every host, whatever no_proxy says.
    handle->set(CURLOPT_NOPROXY, options_.proxy ? "" : nullptr);
    handle->set(CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_ANY));
    const CURLcode code = curl_easy_perform(handle->get());
    const char* url = nullptr;
    curl_easy_getinfo(handle->get(), CURLINFO_EFFECTIVE_URL, &url);
    if (url) transfer.answer.url = url;
    release(std::move(handle));

    // One line of a header that is longer than all of them may be.
    if (code == CURLE_OUT_OF_MEMORY && !transfer.error) {
      transfer.error = transfer.endless("a header of its answer has no end");
    }
    if (transfer.error) return *transfer.error;
    if (transfer.isEnough) return std::move(transfer.answer);
    if (code == CURLE_OK && !transfer.begin()) return *transfer.error;

    const long status = transfer.answer.status;
    Attempt attempt;
    if (code == CURLE_COULDNT_CONNECT || code == CURLE_COULDNT_RESOLVE_HOST ||
        code == CURLE_COULDNT_RESOLVE_PROXY) {
      attempt.outcome = Attempt::Outcome::notSent;
    } else if (code != CURLE_OK || (status == 502 && !request.gatewayAnswers) || status == 504) {
      attempt.outcome = Attempt::Outcome::unknown;
    } else if (status == 425 || status == 429 || status == 503) {
      attempt = {Attempt::Outcome::refused, retryAfter(transfer.answer)};
    }
    // What a certificate says does not change within seconds.
    const bool isRefusedByUs =
        code == CURLE_PEER_FAILED_VERIFICATION || code == CURLE_TOO_MANY_REDIRECTS;
    const auto canBeSentAgain = [&] {
      return !transfer.hasTaken && (!request.upload || request.upload->rewind());
    };
    if (attempt.outcome == Attempt::Outcome::answered) {
      if (status != 401 && status != 407) return std::move(transfer.answer);
      const auto hasChance = authorise(transfer.answer, request, scheme, refusals, hasAskedAnew);
      if (!hasChance) return hasChance.error();
      if (canBeSentAgain()) continue;
      return remoteError(RemoteProblem::failed,
                         "The server asked who it is only after it had the document.");
    }
    if (!isRefusedByUs && canBeSentAgain() && pacer_.again(attempt, number, request.isRepeatable)) {
      continue;
    }
    const auto host = shown(request.url);
    if (attempt.outcome == Attempt::Outcome::refused) {
      return remoteError(RemoteProblem::notNow,
                         host + " has no time now (status " + std::to_string(status) + ").",
                         attempt.retryAfter);
    }
    if (code == CURLE_OK) {
      return remoteError(RemoteProblem::unreachable, "What stands before " + host +
                                                         " does not reach it (status " +
                                                         std::to_string(status) + ").");
    }
    auto sentence = host + (code == CURLE_PEER_FAILED_VERIFICATION
                                ? " shows a certificate that is not trusted: "
                                : " cannot be reached: ");
    sentence.append(text[0] != '\0' ? text.data() : curl_easy_strerror(code)).append(".");
    return remoteError(RemoteProblem::unreachable, std::move(sentence));
  }
}

}  // namespace docsource::http
