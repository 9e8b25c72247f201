#include "extensions/account/AccountBundle.h"

#include <algorithm>

#include "platform/base/Text.h"
#include "platform/files/Places.h"

namespace account {
namespace {

constexpr const char* identifierPrefix = "com.veltro.docsource.account.";
/// Names of files end at 255 bytes, and those made of an account's name are longer than it.
constexpr std::size_t longestName = 100;

}  // namespace

std::optional<std::string> problemOfName(const std::string& name) {
  if (name.empty() || name.size() > longestName) {
    return "The name of an account has 1 to " + std::to_string(longestName) + " bytes";
  }
  const bool hasControl = std::any_of(
      name.begin(), name.end(), [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; });
  if (name.starts_with('.') || name.find('/') != std::string::npos || hasControl ||
      !qx::isValidUTF8(name)) {
    return "The name of an account is text without slashes and control characters, and does not "
           "begin with a dot";
  }
  return std::nullopt;
}

std::string identifierOf(const std::string& name) { return identifierPrefix + name; }
std::string bundleNameOf(const std::string& name) { return "account-" + name; }

Lists listsFor(const std::string& name, const std::string& kind, const std::string& executable,
               const qx::Dictionary& settings) {
  const auto group = "group." + identifierOf(name);
  auto extension = settings;
  extension["QXExtensionPointName"] = "com.veltro.docsource-nonui";
  extension["QXExtensionDocSourceDocumentGroup"] = group;
  extension["QXExtensionKeepsRunning"] = true;
  extension[nameKey] = name;
  extension[kindKey] = kind;
  return {{{"QXBundleIdentifier", identifierOf(name)},
           {"QXBundleExecutable", executable},
           {"QXExtension", std::move(extension)}},
          {{"com.veltro.application-groups", qx::Array{group}}}};
}

std::optional<Account> accountOf(const qx::Bundle& bundle) {
  const auto* extension = qx::find<qx::Dictionary>(bundle.info, "QXExtension");
  const auto* name = extension ? qx::find<std::string>(*extension, nameKey) : nullptr;
  const auto* kind = extension ? qx::find<std::string>(*extension, kindKey) : nullptr;
  const auto* group =
      extension ? qx::find<std::string>(*extension, "QXExtensionDocSourceDocumentGroup") : nullptr;
  if (!name || !kind || !group || bundle.identifier != identifierOf(*name)) return std::nullopt;
  const auto* source = qx::find<std::string>(*extension, directoryKey);
  if (!source) source = qx::find<std::string>(*extension, urlKey);
  const auto container = qx::Places::groupContainers() + "/" + *group;
  return Account{*name,
                 bundle.identifier,
                 *kind,
                 source ? *source : "",
                 bundle.path,
                 container,
                 container + "/Doc Source Storage"};
}

}  // namespace account
