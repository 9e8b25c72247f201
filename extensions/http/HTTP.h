#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "docsource/remote.h"
#include "extensions/http/Pacer.h"

namespace docsource::http {

/// How a server is reached and who asks.
struct ConnectionOptions {
  /// Absent with a bearer token, or where the server asks nobody.
  std::optional<std::string> user;
  /// Password or bearer token; asked for when it is first needed and again when the server refused
  /// it. Absent: none is sent.
  std::function<Result<std::string>()> secret;
  /// The secret is a bearer token (RFC 6750).
  bool isBearer = false;
  /// Files in PEM form. Without an authority of one's own those of the system are trusted.
  std::optional<std::string> authority;
  std::optional<std::string> clientCertificate;
  std::optional<std::string> clientKey;
  /// A URL; absent: what the environment says (http_proxy, https_proxy, no_proxy).
  std::optional<std::string> proxy;
  /// A connection on which nothing moves for so long is given up.
  std::chrono::seconds patience{60};
  Pacer::Wait wait;
};

/// The content of a request.
class Upload {
 public:
  virtual ~Upload() = default;
  virtual std::uint64_t size() const = 0;
  /// The next bytes; none at the end. An error breaks the connection before the server has all.
  virtual Result<std::size_t> read(char* into, std::size_t most) = 0;
  /// Back to the beginning; false when that is not possible (any more).
  virtual bool rewind() = 0;
  /// Sent at once: to send it in vain costs little.
  virtual bool isShort() const { return false; }
};

/// Content that is in memory, and stays there as long as this object.
class MemoryUpload final : public Upload {
 public:
  explicit MemoryUpload(std::string_view text) : text_(text) {}
  std::uint64_t size() const override { return text_.size(); }
  Result<std::size_t> read(char* into, std::size_t most) override {
    const auto count = text_.copy(into, most, position_);
    position_ += count;
    return count;
  }
  bool rewind() override {
    position_ = 0;
    return true;
  }
  bool isShort() const override { return text_.size() <= (1U << 20U); }

 private:
  const std::string_view text_;
  std::size_t position_ = 0;
};

struct Answer {
  long status = 0;
  /// By name in lower case; those that came more than once joined by ", ".
  std::map<std::string, std::string, std::less<>> headers;
  /// Its content, the beginning of it, where nobody took it.
  std::string text;
  /// Where it came from in the end.
  std::string url;

  bool succeeded() const { return status >= 200 && status < 300; }
  /// Whether the server could not do what it would do at another time (RFC 9110, 15.6).
  bool isOutOfOrder() const { return status >= 500 && status != 501; }
  std::optional<std::string_view> header(std::string_view name) const;
  /// A header that is a date, in seconds since 1970 (RFC 9110, 5.6.7).
  std::optional<std::int64_t> date(std::string_view name) const;
};

/// How many entries of a directory are believed in; no server lists so many, and who goes on does
/// not end.
constexpr std::size_t mostEntries = 1'000'000;

/// A number of bytes as a header or a listing tells it; absent for what no document can have.
std::optional<std::uint64_t> sizeIn(std::string_view text);

/// "bytes 0-99/1234"; the total is absent where the server does not say it.
struct ContentRange {
  std::uint64_t first = 0;
  std::optional<std::uint64_t> total;

  static std::optional<ContentRange> from(std::string_view text);
};

/// Nobody knows how much.
constexpr std::uint64_t anyWork = UINT64_MAX;

struct Request {
  std::string method;
  std::string url;
  /// "Name: value".
  std::vector<std::string> headers = {};
  Upload* upload = nullptr;
  /// Sending it twice does what sending it once does.
  bool isRepeatable = false;
  bool followsRedirects = false;
  /// So many bytes the server has to write, copy or put together itself before it answers: it is
  /// given a second more for each 4 MiB of them, and ten minutes at most.
  std::uint64_t work = 0;
  /// Its answer is the content of a document, which comes as slowly as the line is. Any other
  /// answer to a request that neither sends nor asks for much has to come at a least speed once it
  /// comes.
  bool isContent = false;
  /// A status of 502 is an answer and not a proxy's.
  bool gatewayAnswers = false;
  /// Of an answer that succeeds: called once before its content; an error ends the request.
  std::function<Result<void>(const Answer&)> begin = {};
  /// Its content in pieces; false when no more is wanted, which is success.
  std::function<Result<bool>(std::string_view)> take = {};
};

/// The connections to one server. Everything that is asked of it goes through perform(), which is
/// where authentication, retries and broken connections are dealt with.
///
/// Threads: any; perform() waits.
class Session {
 public:
  explicit Session(ConnectionOptions options);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// The answer, whatever its status, but: `unreachable` when none came (also a proxy's 502 and
  /// 504), `notNow` for what the server puts off, `notAuthorised`; and the error of a callback or
  /// of the upload as it was.
  Result<Answer> perform(const Request& request);

  Pacer& pacer() { return pacer_; }

 private:
  class Handle;
  struct Transfer;

  std::unique_ptr<Handle> acquire();
  void release(std::unique_ptr<Handle> handle);
  Result<std::optional<std::string>> secret(bool anew);
  /// How the server wants to be told who asks; 0 when it offers nothing that is known.
  long schemeIn(const Answer& answer, bool isSecure) const;
  /// Whether a request that was not authorised has a chance now.
  Result<bool> authorise(const Answer& answer, const Request& request, long sentScheme,
                         unsigned& refusals, bool& hasAskedAnew);

  const ConnectionOptions options_;
  Pacer pacer_;
  std::mutex mutex_;
  std::vector<std::unique_ptr<Handle>> idle_;
  std::optional<std::string> secret_;
  std::atomic<long> scheme_{0};
};

}  // namespace docsource::http
