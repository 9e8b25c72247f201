#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "docsource/provider.h"
#include "docsource/remote.h"
#include "extensions/account/AccountService.h"
#include "extensions/account/Settings.h"
#include "mirror/Mirror.h"

/// The process of an account: the provider of its documents, which a mirror keeps in agreement with
/// a remote, and the service for the tool. Runs as long as its user's broker does.
class AccountProvider final : public docsource::Provider {
 public:
  /// Makes the remote that the settings of an account name.
  using MakeRemote = std::function<docsource::Result<std::unique_ptr<docsource::Remote>>(
      const account::Settings& setting)>;

  explicit AccountProvider(MakeRemote makeRemote)
      : Provider(Concurrency::concurrent), makeRemote_(std::move(makeRemote)) {}

 protected:
  /// With the mirror: a process that was started again is asked for nothing for as long as nobody
  /// wants a document.
  void begin() override;
  docsource::Result<void> performInitialSetup() override;
  docsource::Result<void> providePlaceholder(const std::string& path) override;
  docsource::Result<void> startProviding(const std::string& path) override;
  void readerWaits(const std::string& path, std::uint64_t offset, std::uint64_t size) override;
  docsource::Result<void> itemChanged(const std::string& path) override;
  docsource::Result<void> stopProviding(const std::string& path) override;
  docsource::Result<std::string> identifierForItem(const std::string& path) override;
  docsource::Result<std::string> pathForItem(const std::string& identifier) override;

 private:
  /// Begins at the first call; an error leaves it to the next.
  docsource::Result<std::shared_ptr<docsource::Mirror>> mirror();

  const MakeRemote makeRemote_;
  std::mutex mutex_;
  // Under the mutex. The service goes first.
  std::shared_ptr<docsource::Mirror> mirror_;
  std::shared_ptr<AccountService> service_;
};
