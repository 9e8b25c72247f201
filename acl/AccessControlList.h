#pragma once

#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "acl/ItemIdentifierList.h"
#include "platform/base/Result.h"
#include "platform/base/Value.h"
#include "platform/containers/NameTable.h"
#include "platform/plist/PropertyList.h"

/// The access-control list in memory, in the layout of its file: a dictionary from provider
/// identifiers to dictionaries from consumer identifiers to dictionaries that hold, under
/// "AllowedItemIDs", the identifiers of the items which this provider may provide to this consumer.
///
/// A query is three look-ups by hash, whatever the size of the list, and allocates nothing.
///
/// The file is not checked when it is read. What does not have the shape above grants nothing, is
/// kept, and is written back as it was. A new grant takes the place only of what stands exactly
/// where its own dictionaries or list must be.
///
/// A list belongs to one queue; it is not safe for concurrent use.
class AccessControlList {
 public:
  struct Grant {
    std::string provider;
    std::string item;
    std::string consumer;
  };

  AccessControlList();
  AccessControlList(AccessControlList&&) noexcept;
  AccessControlList& operator=(AccessControlList&&) noexcept;
  ~AccessControlList();

  /// Reads whatever property list the stream holds, without ever building it as a Value.
  static qx::Result<AccessControlList> read(std::istream& stream);

  /// Writes the whole list, with dictionaries in byte order.
  void write(qx::PropertyList::Writer& writer);

  bool isAllowed(std::string_view provider, std::string_view item, std::string_view consumer) const;

  /// Adds a grant after those that the consumer has. Returns false when it was there.
  bool allow(std::string_view provider, std::string_view item, std::string_view consumer);

  /// Takes a grant away, and then what became empty: the list of items, the consumer's entry, the
  /// provider's. Returns false when there was no such grant.
  bool disallow(std::string_view provider, std::string_view item, std::string_view consumer);

  /// Returns what this consumer may have of this provider, in the order in which it was granted.
  std::vector<std::string> itemsOf(std::string_view provider, std::string_view consumer) const;

  /// Returns every grant, by provider, then by consumer, then in the order in which they were made.
  std::vector<Grant> grants();

 private:
  class Reader;

  /// Either a dictionary of the right shape or, where `foreign` is set, something else in its
  /// place.
  struct ConsumerEntry {
    std::optional<ItemIdentifierList> allowedItems;
    /// Keys of other names, and the key of the items where its value is no array.
    std::unique_ptr<qx::Dictionary> otherKeys;
    std::unique_ptr<qx::Value> foreign;
  };
  struct ProviderEntry {
    qx::NameTable<ConsumerEntry> consumers;
    std::unique_ptr<qx::Value> foreign;
  };

  static void write(const ConsumerEntry& entry, qx::PropertyList::Writer& writer);

  qx::NameTable<ProviderEntry> providers_;
  std::unique_ptr<qx::Value> foreign_;
};
