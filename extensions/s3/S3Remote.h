#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "docsource/remote.h"
#include "extensions/account/Settings.h"
#include "extensions/http/HTTP.h"
#include "extensions/s3/Signature.h"

/// Documents in a bucket of an S3 store.
namespace docsource::s3 {

struct S3Options {
  /// "s3://BUCKET" or "s3://BUCKET/PREFIX".
  std::string url;
  /// http or https, without a path; absent: that of the region at the service that the protocol
  /// comes from.
  std::optional<std::string> endpoint;
  std::optional<std::string> region;
  /// Asked for when they are first needed and again when the store refuses them.
  std::function<Result<Credentials>()> credentials;
  http::ConnectionOptions connection;
  /// The store's own times do: listing asks no object for the document's time and permissions.
  bool storeTimes = false;
  /// Larger documents are sent in parts of this size, in bytes; one part for each upload under way
  /// is held in memory. Stores want 5 MiB at least.
  std::uint64_t partSize = std::uint64_t{8} << 20U;
  /// Keys are listed so many at a time, at most a thousand.
  unsigned pageSize = 1000;
};

/// An error when the URL or the endpoint is none that can be used. Nothing is asked before the
/// first operation; what the remote is capable of is known when identity() has succeeded.
Result<std::unique_ptr<Remote>> makeS3Remote(S3Options options);
Result<std::unique_ptr<Remote>> makeS3Remote(const account::Settings& setting);

}  // namespace docsource::s3
