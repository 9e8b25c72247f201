#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

/// Errors and results, as consumers (docsource/client.h) and providers (docsource/provider.h) see
/// them. Errors are values; this library throws nothing (unless memory runs out). Any thread may
/// use everything here; an object is used by one thread at a time.

#ifndef DOCSOURCE_API
#define DOCSOURCE_API __attribute__((visibility("default")))
#endif

namespace docsource {

/// The domains of errors. The daemon and the platform decide the codes of each.
///
/// DSErrorDomain, the daemon's own answers: 1 item not found (info "identifier"), 2 not found
/// ("URL"), 3 not permitted, 4 invalid parameter ("parameter", "value"), 5 invalid bookmarkable
/// string, 6 client lacks entitlement ("entitlement"), 7 provider's proxy not found ("identifier"),
/// 8 provider failed (underlying error: what it said), 9 sandbox extension failed ("URL").
inline constexpr std::string_view daemonErrorDomain = "DSErrorDomain";
/// QXConduitErrorDomain: 1 no such operation, 2 arguments do not match, 3 reply does not match, 4
/// connection lost during the call (it may or may not have been carried out), 5 too large for one
/// message.
inline constexpr std::string_view conduitErrorDomain = "QXConduitErrorDomain";
/// QXExtensionErrorDomain: 1 extension not installed, 2 could not be launched.
inline constexpr std::string_view extensionErrorDomain = "QXExtensionErrorDomain";
/// QXStandardErrorDomain: 260 no such file, 256 any other file error (info "QXURLErrorKey").
inline constexpr std::string_view standardErrorDomain = "QXStandardErrorDomain";
/// QXPOSIXErrorDomain: an errno (errno(3)).
inline constexpr std::string_view posixErrorDomain = "QXPOSIXErrorDomain";
/// Errors of this library, see LibraryError.
inline constexpr std::string_view libraryErrorDomain = "DocSourceLibraryErrorDomain";

enum class LibraryError : std::int64_t {
  /// No answer came within the call's timeout. The service may still carry the call out.
  timedOut = 1,
  /// The service cannot be reached because nobody listens; the call was not made. The underlying
  /// error is that of connect(2), in QXPOSIXErrorDomain. The next call tries anew.
  serviceUnavailable = 2,
  /// The service answered with neither a value nor an error where a value was due.
  emptyAnswer = 3,
  /// Text that should be a file URL of this machine with an absolute path is not one (info "URL").
  notAFileURL = 4,
};

class DOCSOURCE_API Error {
 public:
  /// Further facts by name, as text: "URL", "QXURLErrorKey", "identifier", "entitlement",
  /// "parameter", "value". Absent facts are left out, and so is the description.
  using Info = std::map<std::string, std::string, std::less<>>;

  Error(std::string domain, std::int64_t code, std::string description, Info info = {},
        std::optional<Error> underlying = std::nullopt);
  Error(LibraryError code, std::string description, Info info = {},
        std::optional<Error> underlying = std::nullopt);

  /// Makes an error of an errno. `what` says what was tried; the description adds the errno's own
  /// text.
  static Error posix(int errnum, std::string_view what);
  /// Makes QXStandardErrorDomain 260 for ENOENT, otherwise 256 with the POSIX error underneath; the
  /// info has the file's URL.
  static Error file(int errnum, const std::string& path);
  /// DSErrorDomain 1: there is no item of that identifier.
  static Error noSuchItem(const std::string& identifier);

  const std::string& domain() const { return domain_; }
  std::int64_t code() const { return code_; }
  /// One sentence for a person.
  const std::string& description() const { return description_; }
  const Info& info() const { return info_; }
  /// The entry of info(), absent when there is none.
  std::optional<std::string> info(std::string_view name) const;
  /// The error behind this one; null when there is none. Lives as long as this error.
  const Error* underlying() const { return underlying_.get(); }

  bool is(std::string_view domain, std::int64_t code) const {
    return code_ == code && domain_ == domain;
  }
  bool is(LibraryError code) const {
    return is(libraryErrorDomain, static_cast<std::int64_t>(code));
  }
  /// Returns whether the service could not be reached, or went away during the call.
  bool isConnectionFailure() const {
    return is(LibraryError::serviceUnavailable) || is(conduitErrorDomain, 4);
  }

  /// "domain code: description", followed by " (underlying error as text)" where there is one.
  std::string text() const;

 private:
  std::string domain_;
  std::int64_t code_;
  std::string description_;
  Info info_;
  std::shared_ptr<const Error> underlying_;
};

/// Either a value or the error that prevented it.
template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : content_(std::in_place_index<0>, std::move(value)) {}
  Result(Error error) : content_(std::in_place_index<1>, std::move(error)) {}

  bool ok() const { return content_.index() == 0; }
  explicit operator bool() const { return ok(); }

  /// Call this only when ok().
  T& value() & { return *std::get_if<0>(&content_); }
  const T& value() const& { return *std::get_if<0>(&content_); }
  T&& value() && { return std::move(*std::get_if<0>(&content_)); }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }
  T&& operator*() && { return std::move(*this).value(); }
  T* operator->() { return std::get_if<0>(&content_); }
  const T* operator->() const { return std::get_if<0>(&content_); }

  /// Call this only when not ok().
  const Error& error() const { return *std::get_if<1>(&content_); }

 private:
  std::variant<T, Error> content_;
};

/// Success, or the error.
template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(Error error) : error_(std::move(error)) {}

  bool ok() const { return !error_; }
  explicit operator bool() const { return ok(); }
  /// Call this only when not ok().
  const Error& error() const { return *error_; }

 private:
  std::optional<Error> error_;
};

/// The file URL of an absolute path (RFC 8089); bytes outside RFC 3986's unreserved set and "/" are
/// percent-encoded. A directory's URL ends in "/".
DOCSOURCE_API std::string fileURL(std::string_view path, bool isDirectory = false);
/// The percent-decoded path of a file URL of this machine; absent for any other text.
DOCSOURCE_API std::optional<std::string> pathOfURL(std::string_view url);

/// Owns one open file descriptor.
class DOCSOURCE_API Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept;
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor();

  /// -1 when it owns none.
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  /// Gives the descriptor away; the caller closes it.
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

}  // namespace docsource
