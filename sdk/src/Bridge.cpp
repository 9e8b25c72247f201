// Errors on their way between the public interface and the conduit.

#include "sdk/src/Bridge.h"

#include "platform/base/Errors.h"
#include "platform/base/Value.h"

namespace docsource::bridge {
namespace {

constexpr std::string_view descriptionKey = "description";
constexpr std::string_view underlyingErrorKey = "underlyingError";

bool namesFile(std::string_view key) { return key == "URL" || key == QXURLErrorKey; }

}  // namespace

Error fromPlatform(const qx::Error& error) {
  Error::Info info;
  for (const auto& [key, value] : error.info()) {
    if (key != descriptionKey && key != underlyingErrorKey) info.emplace(key, describe(value));
  }
  std::optional<Error> underlying;
  if (const auto behind = error.underlyingError()) underlying = fromPlatform(*behind);
  return Error(error.domain(), error.code(), error.description(), std::move(info),
               std::move(underlying));
}

qx::Error toPlatform(const Error& error) {
  qx::Error::Info info;
  for (const auto& [key, text] : error.info()) {
    info.emplace(key, namesFile(key) ? qx::Value(qx::URL(text)) : qx::Value(text));
  }
  info.insert_or_assign(std::string(descriptionKey), qx::Value(error.description()));
  if (error.underlying()) {
    info.insert_or_assign(std::string(underlyingErrorKey),
                          qx::Value(toPlatform(*error.underlying())));
  }
  return qx::Error(error.domain(), error.code(), std::move(info));
}

}  // namespace docsource::bridge
