#pragma once

#include <functional>
#include <optional>
#include <string>

/// The settings of an account: strings in the QXExtension dictionary of its bundle. Secrets are
/// never among them, only where they are kept.
namespace account {

/// Finds a setting by its key.
using Settings = std::function<std::optional<std::string>(const std::string& key)>;

inline constexpr const char* nameKey = "DocSourceAccountName";
/// "folder", "webdav" or "s3"; the program of the account's process is called so.
inline constexpr const char* kindKey = "DocSourceAccountKind";

/// Where the documents live: a directory of this machine, or an address.
inline constexpr const char* directoryKey = "DocSourceAccountDirectory";
inline constexpr const char* urlKey = "DocSourceAccountURL";

/// Of servers: who asks, and what tells the password. That is a command of the shell that prints
/// it, or a file that nobody but its owner may read.
inline constexpr const char* userKey = "DocSourceAccountUser";
inline constexpr const char* secretCommandKey = "DocSourceAccountPasswordCommand";
inline constexpr const char* secretFileKey = "DocSourceAccountPasswordFile";
/// "bearer" when the password is a bearer token.
inline constexpr const char* authenticationKey = "DocSourceAccountAuthentication";
/// Files in PEM form.
inline constexpr const char* authorityKey = "DocSourceAccountCertificateAuthority";
inline constexpr const char* clientCertificateKey = "DocSourceAccountClientCertificate";
inline constexpr const char* clientKeyKey = "DocSourceAccountClientKey";
inline constexpr const char* proxyKey = "DocSourceAccountProxy";

/// What somebody who has logged in on a page of the server is known by from then on.
struct Login {
  /// Of the documents.
  std::string url;
  std::string user;
  std::string password;
};

/// How many bytes of content an account keeps here; what is more is given back by itself.
inline constexpr const char* keepKey = "DocSourceAccountKeep";

/// Of S3: the address of the store and its region.
inline constexpr const char* endpointKey = "DocSourceAccountEndpoint";
inline constexpr const char* regionKey = "DocSourceAccountRegion";
/// "store" when the store's own times do, and no object is asked for the document's.
inline constexpr const char* timesKey = "DocSourceAccountTimes";

}  // namespace account
