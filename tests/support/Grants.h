#pragma once

#include <filesystem>
#include <optional>
#include <set>
#include <string>

#include "platform/plist/PropertyList.h"

namespace qx::test {

/// Where the daemon of a root keeps its grants.
inline std::string accessControlFileOf(const std::string& root) {
  return root + "/Home/Library/DocSource/AccessControl.plist";
}

/// What an access-control file grants, each as "provider consumer item"; nothing when there is no
/// file, absent when it cannot be parsed.
inline std::optional<std::set<std::string>> grantsIn(const std::string& path) {
  std::set<std::string> grants;
  if (!std::filesystem::exists(path)) return grants;
  const auto list = PropertyList::readFile(path);
  if (!list) return std::nullopt;
  for (const auto& [provider, consumers] : *list->as<Dictionary>()) {
    for (const auto& [consumer, entry] : *consumers.as<Dictionary>()) {
      for (const Value& item : *find<Array>(*entry.as<Dictionary>(), "AllowedItemIDs")) {
        grants.insert(provider + " " + consumer + " " + *item.as<std::string>());
      }
    }
  }
  return grants;
}

}  // namespace qx::test
