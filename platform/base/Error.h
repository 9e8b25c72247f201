#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace qx {

class Value;

/// A platform error object: domain, code and an info dictionary. It is cheap to copy and immutable.
/// An empty std::optional<Error> means no error.
///
/// The info dictionary leaves out what is absent. It always holds "description", one sentence for a
/// person, and may hold the error behind this one under "underlyingError".
class Error {
 public:
  using Info = std::map<std::string, Value, std::less<>>;

  Error(std::string domain, std::int64_t code, Info info);
  /// Makes an error that holds no more than its description.
  Error(std::string domain, std::int64_t code, std::string_view description);

  const std::string& domain() const;
  std::int64_t code() const;
  const Info& info() const;
  const std::string& description() const;
  std::optional<Error> underlyingError() const;

  bool is(std::string_view domain, std::int64_t code) const;

  /// "domain code: description", followed by " (underlying error as text)" where there is one.
  std::string text() const;

  friend bool operator==(const Error& a, const Error& b);

 private:
  struct Body;
  std::shared_ptr<const Body> body_;
};

}  // namespace qx
