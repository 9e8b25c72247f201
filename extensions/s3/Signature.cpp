#include "extensions/s3/Signature.h"

#include <sodium.h>

#include <algorithm>
#include <array>
#include <span>

#include "platform/base/Text.h"

namespace docsource::s3 {
namespace {

using Hash = std::array<unsigned char, crypto_hash_sha256_BYTES>;

const unsigned char* bytesOf(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

Hash authenticated(std::span<const unsigned char> key, std::string_view text) {
  Hash hash{};
  crypto_auth_hmacsha256_state state;
  crypto_auth_hmacsha256_init(&state, key.data(), key.size());
  crypto_auth_hmacsha256_update(&state, bytesOf(text), text.size());
  crypto_auth_hmacsha256_final(&state, hash.data());
  return hash;
}

bool isUnreserved(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

/// Without white space around it, and what is in it reduced to single spaces.
std::string trimmed(std::string_view value) {
  std::string text;
  for (const char each : value) {
    const bool isSpace = each == ' ' || each == '\t';
    if (isSpace && (text.empty() || text.back() == ' ')) continue;
    text += isSpace ? ' ' : each;
  }
  if (text.ends_with(' ')) text.pop_back();
  return text;
}

}  // namespace

std::string hashOf(std::string_view text) {
  Hash hash{};
  crypto_hash_sha256(hash.data(), bytesOf(text), text.size());
  return qx::hexEncode(hash);
}

std::string encoded(std::string_view text, bool keepsSlash) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::string result;
  for (const char each : text) {
    const auto c = static_cast<unsigned char>(each);
    if (isUnreserved(c) || (each == '/' && keepsSlash)) {
      result += each;
    } else {
      result += '%';
      result += digits[c >> 4U];
      result += digits[c & 15U];
    }
  }
  return result;
}

std::string queryOf(const std::map<std::string, std::string>& parameters) {
  std::map<std::string, std::string> sorted;
  for (const auto& [name, value] : parameters) {
    sorted.emplace(encoded(name, false), encoded(value, false));
  }
  std::string query;
  for (const auto& [name, value] : sorted) {
    query.append(query.empty() ? "" : "&").append(name).append("=").append(value);
  }
  return query;
}

std::string authorization(const Signable& request, const Credentials& credentials,
                          const std::string& region, const std::string& time) {
  std::string canonical = request.method + "\n" + request.path + "\n" + request.query + "\n";
  std::string names;
  for (const auto& [name, value] : request.headers) {
    canonical += name + ":" + trimmed(value) + "\n";
    names += (names.empty() ? "" : ";") + name;
  }
  canonical += "\n" + names + "\n" + request.headers.at("x-amz-content-sha256");

  const auto date = time.substr(0, 8);
  const auto scope = date + "/" + region + "/s3/aws4_request";
  const auto text = "AWS4-HMAC-SHA256\n" + time + "\n" + scope + "\n" + hashOf(canonical);
  const auto first = "AWS4" + credentials.secret;
  auto key = authenticated({bytesOf(first), first.size()}, date);
  for (const std::string_view part :
       {std::string_view(region), std::string_view("s3"), std::string_view("aws4_request")}) {
    key = authenticated(key, part);
  }
  return "AWS4-HMAC-SHA256 Credential=" + credentials.identifier + "/" + scope +
         ",SignedHeaders=" + names + ",Signature=" + qx::hexEncode(authenticated(key, text));
}

}  // namespace docsource::s3
