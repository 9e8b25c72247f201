#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

/// Signature Version 4: how a request to an S3 store says who sends it ("Authenticating Requests:
/// Using the Authorization Header" in the store's reference). The signature covers what is sent
/// byte for byte, therefore path and query are encoded here and nowhere else.
namespace docsource::s3 {

struct Credentials {
  std::string identifier;
  std::string secret;
  /// Of credentials that end after a while.
  std::optional<std::string> token;

  bool operator==(const Credentials&) const = default;
};

struct Signable {
  std::string method;
  /// encoded(), beginning with a slash.
  std::string path;
  /// queryOf().
  std::string query;
  /// By name in lower case, "host" and "x-amz-content-sha256" among them. All are signed.
  std::map<std::string, std::string> headers;
};

/// The value of the header `Authorization`. `time` is that of the header x-amz-date, in the form
/// "20130524T000000Z".
std::string authorization(const Signable& request, const Credentials& credentials,
                          const std::string& region, const std::string& time);

/// Percent-encoded (RFC 3986, unreserved bytes as they are); a slash too unless it is kept.
std::string encoded(std::string_view text, bool keepsSlash);
/// Encoded and in the order in which it is signed.
std::string queryOf(const std::map<std::string, std::string>& parameters);

/// SHA-256 in lower-case hexadecimal.
std::string hashOf(std::string_view text);

}  // namespace docsource::s3
