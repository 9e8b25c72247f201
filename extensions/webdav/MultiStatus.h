#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "docsource/remote.h"

namespace docsource::webdav {

/// What a server says of one resource, in an answer with status 207 (RFC 4918, 13 and 14).
struct Resource {
  /// As it came: still percent-encoded, perhaps with scheme and host.
  std::string href;
  /// Of the resource as a whole; 0 where properties have statuses of their own.
  int status = 0;
  bool isCollection = false;
  std::optional<std::string> tag;
  /// Absent also where what is told is no size.
  std::optional<std::uint64_t> size;
  std::optional<std::string> modified;
  /// Of servers that have one: never used again for another, in all of the installation or in the
  /// user's files.
  std::optional<std::string> identifier;
};

/// Reads an answer as it comes. One resource is held at a time, so that any number of them takes no
/// memory. Document types are refused; nothing is fetched.
class MultiStatus {
 public:
  using Visitor = std::function<Result<void>(const Resource&)>;

  explicit MultiStatus(Visitor visitor);
  ~MultiStatus();

  /// The next piece. An error is the visitor's, or says that this is not such an answer.
  Result<void> feed(std::string_view piece);
  /// Nothing comes any more. An error when the answer is not whole.
  Result<void> finish();

 private:
  class Parser;
  std::unique_ptr<Parser> parser_;
};

}  // namespace docsource::webdav
