#include "mirror/Checksum.h"

#include <openssl/evp.h>

#include <array>
#include <new>

namespace docsource {

void Checksum::Free::operator()(evp_md_ctx_st* context) const { EVP_MD_CTX_free(context); }

Checksum::Checksum() : context_(EVP_MD_CTX_new()) {
  if (!context_) throw std::bad_alloc();
}

std::optional<Checksum> Checksum::named(const std::string& name) {
  const EVP_MD* const kind = EVP_get_digestbyname(name.c_str());
  if (!kind) return std::nullopt;
  Checksum checksum;
  if (EVP_DigestInit_ex(checksum.context_.get(), kind, nullptr) != 1) return std::nullopt;
  return checksum;
}

Checksum::Checksum(const Checksum& other) : Checksum() {
  if (EVP_MD_CTX_copy_ex(context_.get(), other.context_.get()) != 1) throw std::bad_alloc();
}

void Checksum::add(std::string_view bytes) {
  EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size());
}

std::string Checksum::bytes() const {
  std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
  unsigned size = 0;
  const Checksum copy(*this);
  EVP_DigestFinal_ex(copy.context_.get(), bytes.data(), &size);
  return {reinterpret_cast<const char*>(bytes.data()), size};
}

std::string Checksum::text() const {
  std::string text;
  constexpr std::string_view digits = "0123456789abcdef";
  for (const unsigned char byte : bytes()) {
    text += digits[byte >> 4U];
    text += digits[byte & 15U];
  }
  return text;
}

std::string checksumOf(const std::string& name, std::string_view bytes) {
  auto checksum = Checksum::named(name);
  if (!checksum) return {};
  checksum->add(bytes);
  return checksum->text();
}

}  // namespace docsource
