// The values that consumers and providers share: errors, file URLs, descriptors.

#include "docsource/error.h"

#include "platform/base/Errors.h"
#include "platform/base/FileDescriptor.h"
#include "platform/base/URL.h"
#include "sdk/src/Bridge.h"

namespace docsource {

Error::Error(std::string domain, std::int64_t code, std::string description, Info info,
             std::optional<Error> underlying)
    : domain_(std::move(domain)),
      code_(code),
      description_(std::move(description)),
      info_(std::move(info)),
      underlying_(underlying ? std::make_shared<const Error>(*std::move(underlying)) : nullptr) {}

Error::Error(LibraryError code, std::string description, Info info, std::optional<Error> underlying)
    : Error(std::string(libraryErrorDomain), static_cast<std::int64_t>(code),
            std::move(description), std::move(info), std::move(underlying)) {}

Error Error::posix(int errnum, std::string_view what) {
  return bridge::fromPlatform(qx::posixError(errnum, what));
}

Error Error::file(int errnum, const std::string& path) {
  return bridge::fromPlatform(qx::fileError(errnum, qx::URL::fileURL(path)));
}

Error Error::noSuchItem(const std::string& identifier) {
  return bridge::fromPlatform(DSNotFoundError(identifier));
}

std::optional<std::string> Error::info(std::string_view name) const {
  const auto found = info_.find(name);
  return found == info_.end() ? std::nullopt : std::optional(found->second);
}

std::string Error::text() const {
  std::string text = domain_ + " " + std::to_string(code_) + ": " + description_;
  if (underlying_) text += " (" + underlying_->text() + ")";
  return text;
}

std::string fileURL(std::string_view path, bool isDirectory) {
  return qx::URL::fileURL(path, isDirectory).absoluteString();
}

std::optional<std::string> pathOfURL(std::string_view url) {
  return qx::URL(std::string(url)).path();
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  if (this != &other) {
    const qx::FileDescriptor closed(fd_);
    fd_ = other.release();
  }
  return *this;
}

Descriptor::~Descriptor() { const qx::FileDescriptor closed(fd_); }

}  // namespace docsource
