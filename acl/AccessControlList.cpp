// The three levels of the list, and the care for what does not fit them. Each level is either the
// dictionary that it should be or a foreign value that stands in its place. Foreign values are read
// into ordinary values; everything else goes straight from the file into its table.

#include "acl/AccessControlList.h"

#include <istream>
#include <utility>
#include <vector>

namespace {

constexpr std::string_view allowedItemIDsKey = "AllowedItemIDs";

/// Puts together one value of any shape from the events of the reader.
class ValueBuilder {
 public:
  void begin(qx::Value container) { open_.push_back({std::move(container), {}}); }
  void key(std::string_view text) { open_.back().key = text; }

  /// Takes a complete value. Returns the outermost one once that is complete.
  std::optional<qx::Value> add(qx::Value value) {
    if (open_.empty()) return value;
    Container& container = open_.back();
    if (auto* array = container.value.as<qx::Array>()) {
      array->push_back(std::move(value));
    } else if (auto* dictionary = container.value.as<qx::Dictionary>()) {
      dictionary->insert_or_assign(std::move(container.key), std::move(value));
    }
    return std::nullopt;
  }
  std::optional<qx::Value> end() {
    qx::Value complete = std::move(open_.back().value);
    open_.pop_back();
    return add(std::move(complete));
  }

  bool isOpen() const { return !open_.empty(); }

 private:
  struct Container {
    qx::Value value;
    std::string key;
  };
  std::vector<Container> open_;
};

}  // namespace

/// Knows the level of the list at which the reader is, and where an event belongs. No key comes
/// twice in a dictionary, so whatever begins is new.
class AccessControlList::Reader : public qx::PropertyList::Handler {
 public:
  AccessControlList list;

  void beginDictionary() override {
    if (foreign_.isOpen()) return foreign_.begin(qx::Dictionary());
    switch (level_) {
      case Level::outside:
        level_ = Level::root;
        return;
      case Level::root:
        provider_ = &list.providers_.add(key_);
        level_ = Level::provider;
        return;
      case Level::provider:
        consumer_ = &provider_->consumers.add(key_);
        level_ = Level::consumer;
        return;
      case Level::consumer:
      case Level::items:
        return foreign_.begin(qx::Dictionary());
    }
  }

  void endDictionary() override {
    if (foreign_.isOpen()) return keepForeign(foreign_.end());
    leave();
  }

  void beginArray() override {
    if (!foreign_.isOpen() && level_ == Level::consumer && key_ == allowedItemIDsKey) {
      consumer_->allowedItems.emplace();
      level_ = Level::items;
    } else {
      foreign_.begin(qx::Array());
    }
  }

  void endArray() override {
    if (foreign_.isOpen()) return keepForeign(foreign_.end());
    leave();
  }

  void key(std::string_view text) override {
    if (foreign_.isOpen()) return foreign_.key(text);
    key_ = text;
  }

  void string(std::string_view text) override {
    if (!foreign_.isOpen() && level_ == Level::items) {
      consumer_->allowedItems->append(text);
    } else {
      keepForeign(foreign_.add(text));
    }
  }

  void scalar(qx::Value&& value) override { keepForeign(foreign_.add(std::move(value))); }

 private:
  enum class Level { outside, root, provider, consumer, items };

  void leave() { level_ = static_cast<Level>(static_cast<int>(level_) - 1); }

  void keepForeign(std::optional<qx::Value> complete) {
    if (!complete) return;
    auto owned = std::make_unique<qx::Value>(std::move(*complete));
    switch (level_) {
      case Level::outside:
        list.foreign_ = std::move(owned);
        return;
      case Level::root:
        list.providers_.add(key_).foreign = std::move(owned);
        return;
      case Level::provider:
        provider_->consumers.add(key_).foreign = std::move(owned);
        return;
      case Level::consumer:
        if (!consumer_->otherKeys) consumer_->otherKeys = std::make_unique<qx::Dictionary>();
        consumer_->otherKeys->insert_or_assign(key_, std::move(*owned));
        return;
      case Level::items:
        consumer_->allowedItems->appendForeign(std::move(*owned));
        return;
    }
  }

  Level level_ = Level::outside;
  std::string key_;
  ProviderEntry* provider_ = nullptr;
  ConsumerEntry* consumer_ = nullptr;
  ValueBuilder foreign_;
};

AccessControlList::AccessControlList() = default;
AccessControlList::AccessControlList(AccessControlList&&) noexcept = default;
AccessControlList& AccessControlList::operator=(AccessControlList&&) noexcept = default;
AccessControlList::~AccessControlList() = default;

qx::Result<AccessControlList> AccessControlList::read(std::istream& stream) {
  Reader reader;
  if (auto error = qx::PropertyList::parse(stream, reader)) return *error;
  return std::move(reader.list);
}

// Everything in the list came from a property list or is text, so every value can be written as
// one.
void AccessControlList::write(qx::PropertyList::Writer& writer) {
  if (foreign_) {
    writer.value(*foreign_);
    return;
  }
  writer.beginDictionary();
  providers_.forEach([&](const std::string& provider, ProviderEntry& entry) {
    writer.key(provider);
    if (entry.foreign) {
      writer.value(*entry.foreign);
      return;
    }
    writer.beginDictionary();
    entry.consumers.forEach([&](const std::string& consumer, const ConsumerEntry& ofConsumer) {
      writer.key(consumer);
      write(ofConsumer, writer);
    });
    writer.endDictionary();
  });
  writer.endDictionary();
}

void AccessControlList::write(const ConsumerEntry& entry, qx::PropertyList::Writer& writer) {
  if (entry.foreign) {
    writer.value(*entry.foreign);
    return;
  }
  const auto writeItems = [&] {
    writer.key(allowedItemIDsKey);
    writer.beginArray();
    entry.allowedItems->forEach([&](std::string_view identifier) { writer.string(identifier); },
                                [&](const qx::Value& element) { writer.value(element); });
    writer.endArray();
  };

  writer.beginDictionary();
  bool itemsAreDue = entry.allowedItems.has_value();
  if (entry.otherKeys) {
    for (const auto& [key, value] : *entry.otherKeys) {
      if (itemsAreDue && allowedItemIDsKey < key) {
        writeItems();
        itemsAreDue = false;
      }
      writer.key(key);
      writer.value(value);
    }
  }
  if (itemsAreDue) writeItems();
  writer.endDictionary();
}

// The table or list of a foreign entry is empty, so a query need not ask which kind an entry is.
bool AccessControlList::isAllowed(std::string_view provider, std::string_view item,
                                  std::string_view consumer) const {
  const ProviderEntry* providerEntry = providers_.find(provider);
  if (!providerEntry) return false;
  const ConsumerEntry* consumerEntry = providerEntry->consumers.find(consumer);
  return consumerEntry && consumerEntry->allowedItems &&
         consumerEntry->allowedItems->contains(item);
}

bool AccessControlList::allow(std::string_view provider, std::string_view item,
                              std::string_view consumer) {
  foreign_.reset();
  ProviderEntry& providerEntry = providers_.findOrAdd(provider);
  providerEntry.foreign.reset();
  ConsumerEntry& consumerEntry = providerEntry.consumers.findOrAdd(consumer);
  consumerEntry.foreign.reset();
  if (!consumerEntry.allowedItems) {
    consumerEntry.allowedItems.emplace();
    if (consumerEntry.otherKeys) consumerEntry.otherKeys->erase(std::string(allowedItemIDsKey));
  }
  return consumerEntry.allowedItems->add(item);
}

bool AccessControlList::disallow(std::string_view provider, std::string_view item,
                                 std::string_view consumer) {
  ProviderEntry* providerEntry = providers_.find(provider);
  if (!providerEntry) return false;
  ConsumerEntry* consumerEntry = providerEntry->consumers.find(consumer);
  if (!consumerEntry || !consumerEntry->allowedItems) return false;
  if (!consumerEntry->allowedItems->remove(item)) return false;

  if (!consumerEntry->allowedItems->isEmpty()) return true;
  consumerEntry->allowedItems.reset();
  if (consumerEntry->otherKeys && !consumerEntry->otherKeys->empty()) return true;
  providerEntry->consumers.erase(consumer);
  if (providerEntry->consumers.isEmpty()) providers_.erase(provider);
  return true;
}

std::vector<std::string> AccessControlList::itemsOf(std::string_view provider,
                                                    std::string_view consumer) const {
  std::vector<std::string> items;
  const ProviderEntry* providerEntry = providers_.find(provider);
  const ConsumerEntry* entry = providerEntry ? providerEntry->consumers.find(consumer) : nullptr;
  if (entry && entry->allowedItems) {
    entry->allowedItems->forEach([&](std::string_view item) { items.emplace_back(item); },
                                 [](const qx::Value&) {});
  }
  return items;
}

std::vector<AccessControlList::Grant> AccessControlList::grants() {
  std::vector<Grant> grants;
  providers_.forEach([&](const std::string& provider, ProviderEntry& entry) {
    entry.consumers.forEach([&](const std::string& consumer, const ConsumerEntry& ofConsumer) {
      if (!ofConsumer.allowedItems) return;
      ofConsumer.allowedItems->forEach(
          [&](std::string_view item) {
            grants.push_back({provider, std::string(item), consumer});
          },
          [](const qx::Value&) {});
    });
  });
  return grants;
}
