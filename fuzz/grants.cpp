// The access-control file, as the store reads and writes it, beside the same list as a plain value.
// Whatever a list holds is kept; a grant changes what it must and nothing else.

#include <sstream>
#include <string>

#include "acl/AccessControlList.h"
#include "fuzz/Fuzz.h"
#include "platform/plist/PropertyList.h"

using namespace qx;
using fuzz::require;

namespace {

constexpr const char* itemsKey = "AllowedItemIDs";

std::string written(AccessControlList& list) {
  std::string text;
  PropertyList::Writer writer([&text](std::string_view piece) { text += piece; });
  list.write(writer);
  writer.finish();
  return text;
}

/// The dictionary under the key, put there where there is none.
Dictionary& dictionaryAt(Value& place) {
  if (!place.as<Dictionary>()) place = Dictionary();
  return *place.as<Dictionary>();
}

/// Adds a grant to the value as the list does.
void allow(Value& root, const char* provider, const char* item, const char* consumer) {
  Value& items = dictionaryAt(dictionaryAt(dictionaryAt(root)[provider])[consumer])[itemsKey];
  if (!items.as<Array>()) items = Array();
  Array& array = *items.as<Array>();
  if (std::find(array.begin(), array.end(), Value(item)) == array.end()) array.emplace_back(item);
}

/// Every string that stands where an item's identifier does is granted.
void checkGrants(const AccessControlList& list, const Value& root) {
  const auto* providers = root.as<Dictionary>();
  if (!providers) return;
  for (const auto& [provider, consumers] : *providers) {
    if (!consumers.as<Dictionary>()) continue;
    for (const auto& [consumer, entry] : *consumers.as<Dictionary>()) {
      const auto* dictionary = entry.as<Dictionary>();
      const auto* items = dictionary ? find<Array>(*dictionary, itemsKey) : nullptr;
      require(!list.isAllowed(provider, "never granted", consumer), "nothing else is granted");
      if (!items) continue;
      for (const Value& item : *items) {
        const auto* identifier = item.as<std::string>();
        if (!identifier || *identifier == "never granted") continue;
        require(list.isAllowed(provider, *identifier, consumer), "what the file grants is granted");
      }
    }
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(fuzz::textOf({data, size}));
  std::istringstream stream(text);
  auto list = AccessControlList::read(stream);
  const auto value = PropertyList::read(std::string_view(text));
  require(list.ok() == value.ok(), "every property list can be read as a list of grants");
  if (!list) return 0;

  Value root = *value;
  require(written(*list) == *PropertyList::write(root), "the list is written as it was read");
  if (text.find("never granted") == std::string::npos) checkGrants(*list, root);

  for (const auto& [provider, consumer] :
       {std::pair("P", "C"), std::pair("P", "D"), std::pair("Q", "C")}) {
    allow(root, provider, "i", consumer);
    list->allow(provider, "i", consumer);
    require(list->isAllowed(provider, "i", consumer), "a grant is in force");
    require(!list->allow(provider, "i", consumer), "a grant is there once");
  }
  require(written(*list) == *PropertyList::write(root), "a grant changes nothing else");
  require(list->disallow("P", "i", "C") && !list->isAllowed("P", "i", "C"),
          "a grant that is taken away is gone");
  require(list->isAllowed("P", "i", "D"), "another grant stays");
  return 0;
}
