#pragma once

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "docsource/error.h"
#include "extensions/account/AccountBundle.h"
#include "extensions/account/AccountProtocol.h"
#include "platform/conduit/QXConduitConnection.h"
#include "sdk/src/Bridge.h"

/// The accounts of this user: their bundles, the places of their documents, their processes.
namespace tool {

using account::Account;

/// In the order of their names.
std::vector<Account> installedAccounts();
docsource::Result<Account> accountCalled(const std::string& name);

/// Where a person finds the documents: ~/DocSource/NAME, a link to the storage.
std::string linkFor(const std::string& name);
/// What to do about an account in that state: a sentence with a command in it.
std::string remedyFor(const Account& account, const std::string& state);
/// What a person named, with the documents of every account in place of ~/DocSource itself.
std::vector<std::string> withAllAccounts(const std::vector<std::string>& arguments);
/// The path of an account's item as a person knows it: through that link, where it leads there.
std::string familiarPath(const Account& account, const std::string& path);
/// A sentence with paths in place of file URLs in quotation marks, and with the items of accounts
/// as a person knows them.
std::string inFamiliarWords(std::string sentence,
                            const std::vector<Account>& accounts = installedAccounts());

/// What a person means by a path.
struct Place {
  /// Absolute, the directories above resolved; a link in its last place is followed unless it is an
  /// item of an account itself.
  std::string path;
  std::optional<Account> account;
};
docsource::Result<Place> placeOf(const std::string& argument);

/// Says to whoever has ended a wait that what it was for goes on.
void tellWhatGoesOn(const std::string& subject);

/// A connection to the process of an account. One thread.
class AccountProcess {
 public:
  /// Of the library's error `serviceUnavailable` when it does not run.
  static docsource::Result<AccountProcess> of(const Account& account);
  /// The same once it runs: waits for that, for ever where there is no timeout. The error when the
  /// account is removed meanwhile.
  static docsource::Result<AccountProcess> whenRunning(
      const Account& account, std::optional<std::chrono::milliseconds> timeout);

  /// Bytes.
  struct Moved {
    std::uint64_t done = 0;
    std::uint64_t total = 0;
  };
  /// Of what is under way at that path and below it.
  docsource::Result<Moved> moved(const std::string& path, std::chrono::milliseconds timeout);

  /// Waits for the answer to one call, which `begin` makes with the completion that it is given.
  /// For ever where there is no timeout; `meanwhile` is called every so often, and ends the wait
  /// with EINTR when it returns false.
  template <class... Rs>
  docsource::Result<std::tuple<std::optional<Rs>...>> ask(
      const std::type_identity_t<std::function<void(DSAccount&, qx::Completion<qx::Error, Rs...>)>>&
          begin,
      std::optional<std::chrono::milliseconds> timeout, const std::function<bool()>& meanwhile = {},
      std::chrono::milliseconds every = std::chrono::milliseconds(100)) {
    using Answer = docsource::Result<std::tuple<std::optional<Rs>...>>;
    const auto answered = std::make_shared<std::promise<Answer>>();
    auto result = answered->get_future();
    begin(*connection_->remoteObjectProxyWithErrorHandler<DSAccount>(
              [answered](const qx::Error& error) {
                answered->set_value(docsource::bridge::fromPlatform(error));
              }),
          [answered](const std::optional<qx::Error>& error, const std::optional<Rs>&... values) {
            answered->set_value(error ? Answer(docsource::bridge::fromPlatform(*error))
                                      : Answer(std::make_tuple(values...)));
          });
    const auto begun = std::chrono::steady_clock::now();
    if (!timeout && !meanwhile) result.wait();
    while (result.wait_for(meanwhile ? every : timeout.value_or(every)) !=
           std::future_status::ready) {
      if (timeout && std::chrono::steady_clock::now() - begun >= *timeout) {
        return docsource::Error(docsource::LibraryError::timedOut,
                                "The account did not answer in time.");
      }
      if (meanwhile && !meanwhile()) {
        return docsource::Error::posix(EINTR, "The wait was ended");
      }
    }
    return result.get();
  }

 private:
  explicit AccountProcess(std::shared_ptr<QXConduitConnection> connection)
      : connection_(std::move(connection)) {}

  std::shared_ptr<QXConduitConnection> connection_;
};

}  // namespace tool
