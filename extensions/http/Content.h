#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "docsource/remote.h"
#include "extensions/http/HTTP.h"
#include "mirror/Checksum.h"

namespace docsource::http {

/// What is uploaded, as a remote is handed it. Nothing of the last piece is given out before the
/// source has said that all of it was one whole content, and an error breaks the request: a server
/// never gets as many bytes as it was told unless they are right.
class SourceUpload final : public Upload {
 public:
  explicit SourceUpload(RemoteSource& source);

  std::uint64_t size() const override { return source_.size(); }
  Result<std::size_t> read(char* into, std::size_t most) override;
  /// Only before anything was read.
  bool rewind() override { return given_ == 0 && !hasBegun_; }

  /// At most so much of what is left, for content that is sent in parts.
  Result<std::string> take(std::uint64_t most);

  /// Of everything that was given out; once it has ended.
  std::string sha256() const { return sha256_.text(); }
  std::string sha1() const { return sha1_.text(); }

 private:
  Result<void> fetch();

  RemoteSource& source_;
  std::string current_;
  std::string next_;
  std::size_t position_ = 0;
  std::uint64_t given_ = 0;
  bool hasBegun_ = false;
  bool hasEnded_ = false;
  Checksum sha256_;
  Checksum sha1_;
};

}  // namespace docsource::http
