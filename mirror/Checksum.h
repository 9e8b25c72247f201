#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct evp_md_ctx_st;  // OpenSSL's EVP_MD_CTX

namespace docsource {

/// A checksum that grows with what is added. A copy goes on by itself. One thread at a time.
class Checksum {
 public:
  /// By the names of servers and of OpenSSL alike: "SHA1", "SHA256", "MD5" (EVP_DigestInit(3)).
  /// Absent for others.
  static std::optional<Checksum> named(const std::string& name);

  Checksum(const Checksum& other);
  Checksum(Checksum&&) = default;
  Checksum& operator=(const Checksum& other) { return *this = Checksum(other); }
  Checksum& operator=(Checksum&&) = default;
  ~Checksum() = default;

  void add(std::string_view bytes);
  /// Of all that was added so far.
  std::string bytes() const;
  /// The same in lower-case hexadecimal.
  std::string text() const;

 private:
  struct Free {
    void operator()(evp_md_ctx_st* context) const;
  };
  Checksum();
  std::unique_ptr<evp_md_ctx_st, Free> context_;
};

std::string checksumOf(const std::string& name, std::string_view bytes);

}  // namespace docsource
