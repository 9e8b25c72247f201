#pragma once

#include <optional>
#include <string>

/// Answers whether a provider extension may give an item to a consumer application.
class DSAccessControl {
 public:
  virtual ~DSAccessControl() = default;

  /// Returns false when one of the three is absent; empty strings are looked up like any other. All
  /// three are compared byte for byte. Waits for the answer on the calling thread.
  virtual bool isProviderWithIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(
      const std::optional<std::string>& providerIdentifier,
      const std::optional<std::string>& itemIdentifier,
      const std::optional<std::string>& consumerIdentifier) = 0;
};
