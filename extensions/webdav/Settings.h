#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "docsource/remote.h"
#include "extensions/webdav/WebDAVRemote.h"

namespace docsource::webdav {

/// The settings of an account, strings in the QXExtension dictionary of its bundle. Secrets are not
/// among them: only where they are kept.
inline constexpr const char* urlKey = "DocSourceAccountURL";
inline constexpr const char* userKey = "DocSourceAccountUser";
/// A command of the shell that prints the password; or a file of mode 0600 that has it.
inline constexpr const char* passwordCommandKey = "DocSourceAccountPasswordCommand";
inline constexpr const char* passwordFileKey = "DocSourceAccountPasswordFile";
/// "bearer" when the password is a bearer token.
inline constexpr const char* authenticationKey = "DocSourceAccountAuthentication";
/// Files in PEM form.
inline constexpr const char* authorityKey = "DocSourceAccountCertificateAuthority";
inline constexpr const char* clientCertificateKey = "DocSourceAccountClientCertificate";
inline constexpr const char* clientKeyKey = "DocSourceAccountClientKey";
inline constexpr const char* proxyKey = "DocSourceAccountProxy";

/// `setting` finds a setting by its key.
Result<std::unique_ptr<Remote>> makeWebDAVRemote(
    const std::function<std::optional<std::string>(const std::string&)>& setting);

/// What `command` prints, run by the shell: its first line. Error messages of the command go where
/// those of this process go; what it prints does not.
Result<std::string> secretFromCommand(const std::string& command);
/// The first line of a file that nobody but its owner may read or write.
Result<std::string> secretFromFile(const std::string& path);

}  // namespace docsource::webdav
