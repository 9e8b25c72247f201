// The grants as they stand in the access-control file: provider, consumer, "AllowedItemIDs". What
// in the file has another shape is no grant, and is not shown.

#include <cstdio>

#include "platform/base/Errors.h"
#include "platform/files/Places.h"
#include "platform/plist/PropertyList.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Output.h"

namespace tool {
namespace {

struct Grants {
  qx::Array array;
  std::vector<std::vector<std::string>> rows;

  void add(const std::string& provider, const std::string& consumer, const qx::Value& entry) {
    const auto* dictionary = entry.as<qx::Dictionary>();
    const auto* items = dictionary ? qx::find<qx::Array>(*dictionary, "AllowedItemIDs") : nullptr;
    if (!items) return;
    for (const auto& value : *items) {
      const auto* item = value.as<std::string>();
      if (!item) continue;
      array.emplace_back(qx::Dictionary{
          {"providerIdentifier", provider}, {"consumerIdentifier", consumer}, {"itemID", *item}});
      rows.push_back({provider, consumer, *item});
    }
  }
};

Grants grantsIn(const qx::Value& list) {
  Grants grants;
  const auto* providers = list.as<qx::Dictionary>();
  if (!providers) return grants;
  for (const auto& [provider, value] : *providers) {
    const auto* consumers = value.as<qx::Dictionary>();
    if (!consumers) continue;
    for (const auto& [consumer, entry] : *consumers) grants.add(provider, consumer, entry);
  }
  return grants;
}

}  // namespace

int grants(const Arguments& arguments) {
  const std::string path = qx::Places::home() + "/Library/DocSource/AccessControl.plist";
  const auto list = qx::PropertyList::readFile(path);
  const bool isMissing = !list && list.error().is(QXStandardErrorDomain, qx::fileNoSuchFileError);
  if (!list && !isMissing) {
    std::fprintf(stderr, "%s: ", onOneLine(path).c_str());
    return fail(list.error());
  }
  Grants grants = isMissing ? Grants() : grantsIn(*list);
  return answer(arguments.json, {{"grants", std::move(grants.array)}},
                table({"PROVIDER", "CONSUMER", "ITEM"}, grants.rows));
}

}  // namespace tool
