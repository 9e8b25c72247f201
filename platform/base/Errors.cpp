#include "platform/base/Errors.h"

#include <cerrno>
#include <cstring>

namespace {

enum DSErrorCode : std::int64_t {
  notFound = 1,
  notFoundURL = 2,
  notPermitted = 3,
  invalidParameter = 4,
  invalidBookmarkableString = 5,
  clientLacksEntitlement = 6,
  proxyNotFound = 7,
  pluginOperationFailed = 8,
  sandboxExtensionFailed = 9,
};

qx::Error makeDSError(DSErrorCode code, std::string description, qx::Error::Info info = {}) {
  info.insert_or_assign("description", qx::Value(std::move(description)));
  return qx::Error(std::string(DSErrorDomain), code, std::move(info));
}

/// `text` in quotes between `before` and `after`, or `otherwise` when there is no text.
std::string sentence(std::string_view before, const std::optional<std::string>& text,
                     std::string_view after, std::string_view otherwise) {
  if (!text) return std::string(otherwise);
  return std::string(before) + "\"" + *text + "\"" + std::string(after);
}

std::optional<std::string> textOf(const std::optional<qx::URL>& url) {
  return url ? std::optional(url->absoluteString()) : std::nullopt;
}

}  // namespace

namespace qx {

Error conduitError(ConduitErrorCode code, std::string_view description) {
  return Error(std::string(QXConduitErrorDomain), static_cast<std::int64_t>(code), description);
}

Error extensionError(ExtensionErrorCode code, std::string_view identifier,
                     std::optional<Error> underlying) {
  const std::string_view after =
      code == ExtensionErrorCode::notInstalled ? " is not installed." : " could not be launched.";
  return Error(
      std::string(QXExtensionErrorDomain), static_cast<std::int64_t>(code),
      Error::Info{{"description", sentence("The extension ", std::string(identifier), after, "")},
                  {"identifier", identifier},
                  {"underlyingError", underlying}});
}

Error posixError(int errnum, std::string_view what) {
  // strerrordesc_np(3) is the thread-safe form that no locale touches.
  const char* text = ::strerrordesc_np(errnum);
  return Error(std::string(QXPOSIXErrorDomain), errnum,
               std::string(what) + ": " + (text ? text : "Unknown error") + ".");
}

Error fileError(int errnum, const std::optional<URL>& url) {
  Error::Info info{{std::string(QXURLErrorKey), url}};
  if (errnum == ENOENT) {
    info.emplace("description", sentence("The file ", textOf(url), " does not exist.",
                                         "The file does not exist."));
    return Error(std::string(QXStandardErrorDomain), fileNoSuchFileError, std::move(info));
  }
  info.emplace("description", sentence("The file ", textOf(url), " could not be accessed.",
                                       "The file could not be accessed."));
  info.emplace("underlyingError", posixError(errnum, "The file system refused"));
  return Error(std::string(QXStandardErrorDomain), fileUnknownError, std::move(info));
}

}  // namespace qx

qx::Error DSNotFoundError(const std::optional<std::string>& identifier) {
  return makeDSError(notFound,
                     sentence("Nothing with the identifier ", identifier, " was found.",
                              "What was asked for was not found."),
                     {{"identifier", identifier}});
}

qx::Error DSNotFoundErrorURL(const std::optional<qx::URL>& url) {
  return makeDSError(notFoundURL,
                     sentence("Nothing was found for the URL ", textOf(url), ".",
                              "Nothing was found for the URL."),
                     {{"URL", url}});
}

qx::Error DSNotPermittedError() {
  return makeDSError(notPermitted, "The operation is not permitted.");
}

qx::Error DSInvalidParameterError(std::string_view parameter,
                                  const std::optional<std::string>& value) {
  const std::string name = "The parameter \"" + std::string(parameter) + "\"";
  return makeDSError(invalidParameter,
                     sentence(name + " has the invalid value ", value, ".", name + " is invalid."),
                     {{"parameter", parameter}, {"value", value}});
}

qx::Error DSInvalidBookmarkableStringError() {
  return makeDSError(invalidBookmarkableString, "The bookmarkable string is not valid.");
}

qx::Error DSClientLacksEntitlement(const std::optional<std::string>& entitlement) {
  return makeDSError(clientLacksEntitlement,
                     sentence("The client lacks the entitlement ", entitlement, ".",
                              "The client lacks an entitlement."),
                     {{"entitlement", entitlement}});
}

qx::Error DSProxyNotFoundError(const std::optional<std::string>& identifier,
                               const std::optional<qx::Error>& underlying) {
  return makeDSError(proxyNotFound,
                     sentence("The provider ", identifier, " could not be reached.",
                              "The provider could not be reached."),
                     {{"identifier", identifier}, {"underlyingError", underlying}});
}

qx::Error DSSandboxExtensionFailedError(const std::optional<qx::URL>& url) {
  return makeDSError(sandboxExtensionFailed,
                     sentence("The sandbox could not be extended to ", textOf(url), ".",
                              "The sandbox could not be extended."),
                     {{"URL", url}});
}

std::optional<qx::Error> DSPluginOperationFailedError(const std::optional<qx::Error>& underlying) {
  if (!underlying) return std::nullopt;
  return makeDSError(pluginOperationFailed, "The provider could not carry out the operation.",
                     {{"underlyingError", underlying}});
}

qx::Error DSPluginOperationFailedError() {
  return makeDSError(pluginOperationFailed, "The provider could not carry out the operation.");
}
