#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Error.h"
#include "platform/base/URL.h"
#include "platform/base/Value.h"

/// The platform's error domains and the constructors of the daemon's errors.

inline constexpr std::string_view QXConduitErrorDomain = "QXConduitErrorDomain";
inline constexpr std::string_view QXExtensionErrorDomain = "QXExtensionErrorDomain";
inline constexpr std::string_view QXStandardErrorDomain = "QXStandardErrorDomain";
inline constexpr std::string_view QXPOSIXErrorDomain = "QXPOSIXErrorDomain";
inline constexpr std::string_view DSErrorDomain = "DSErrorDomain";
/// The info key under which the errors of QXStandardErrorDomain name their file.
inline constexpr std::string_view QXURLErrorKey = "QXURLErrorKey";

namespace qx {

enum class ConduitErrorCode : std::int64_t {
  noSuchOperation = 1,
  argumentsDoNotMatch = 2,
  replyDoesNotMatch = 3,
  connectionLost = 4,
  tooLarge = 5,
};
enum class ExtensionErrorCode : std::int64_t { notInstalled = 1, couldNotLaunch = 2 };

inline constexpr std::int64_t fileNoSuchFileError = 260;
inline constexpr std::int64_t fileUnknownError = 256;

Error conduitError(ConduitErrorCode code, std::string_view description);
Error extensionError(ExtensionErrorCode code, std::string_view identifier,
                     std::optional<Error> underlying = std::nullopt);
/// Makes the error of an errno (errno(3)). `what` says what was tried; the description adds the
/// errno's own text.
Error posixError(int errnum, std::string_view what);
/// Makes error 260 for ENOENT, otherwise 256 with the POSIX error underneath. The URL, when there
/// is one, stands under QXURLErrorKey.
Error fileError(int errnum, const std::optional<URL>& url);

}  // namespace qx

qx::Error DSNotFoundError(const std::optional<std::string>& identifier);
qx::Error DSNotFoundErrorURL(const std::optional<qx::URL>& url);
qx::Error DSNotPermittedError();
qx::Error DSInvalidParameterError(std::string_view parameter,
                                  const std::optional<std::string>& value);
qx::Error DSInvalidBookmarkableStringError();
qx::Error DSClientLacksEntitlement(const std::optional<std::string>& entitlement);
qx::Error DSProxyNotFoundError(const std::optional<std::string>& identifier,
                               const std::optional<qx::Error>& underlying);
qx::Error DSSandboxExtensionFailedError(const std::optional<qx::URL>& url);
/// Wraps a failure that an extension reported. Without a failure there is no error.
std::optional<qx::Error> DSPluginOperationFailedError(const std::optional<qx::Error>& underlying);
/// The bare error, with nothing underneath.
qx::Error DSPluginOperationFailedError();
