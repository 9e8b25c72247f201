#include "platform/platformd/SandboxService.h"

#include <fcntl.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

#include "platform/base/Errors.h"
#include "platform/files/Places.h"
#include "platform/log/Log.h"
#include "platform/platformd/ServicePeer.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/SandboxProtocol.h"

namespace {

using qx::Error;
using qx::SandboxKeyStore;
using qx::SharedDescriptor;
using Kind = UserAccount::Kind;

constexpr std::size_t longestToken = 4096;

/// Where the user's daemon has its runtime directory when nothing says otherwise.
std::optional<SandboxKeyStore> defaultDirectory(uid_t user) {
  const std::string path = "/run/user/" + std::to_string(user) + "/docsource";
  qx::FileDescriptor directory(::open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory) return std::nullopt;
  auto store =
      SandboxKeyStore::at(std::make_shared<const qx::FileDescriptor>(std::move(directory)), user);
  return store ? std::optional(*std::move(store)) : std::nullopt;
}

class SandboxClient final : public QXSandbox, public std::enable_shared_from_this<SandboxClient> {
 public:
  SandboxClient(std::shared_ptr<ServicePeer> peer, std::shared_ptr<KeyDirectories> keys)
      : peer_(std::move(peer)), keys_(std::move(keys)) {}
  ~SandboxClient() override {
    for (const auto& [number, charge] : handedOver_) keys_->remove(number);
  }

  void consumeExtension_completion(const std::optional<qx::Bytes>& token,
                                   qx::Completion<Error, SharedDescriptor> completion) override {
    if (!token) {
      completion(DSInvalidParameterError("token", std::nullopt), std::nullopt);
      return;
    }
    std::string text(reinterpret_cast<const char*>(token->data()),
                     std::min(token->size(), longestToken + 1));
    const bool isRun = peer_->run([peer = peer_, keys = keys_, completion,
                                   text = std::move(text)](UserAccount::Charge charge) {
      redeem(*peer, *keys, text, completion);
      charge = {};
    });
    if (!isRun) completion(UserAccount::exhausted(), std::nullopt);
  }

  void useKeyDirectory_completion(const std::optional<SharedDescriptor>& directory,
                                  qx::Completion<Error> completion) override {
    if (!directory || !*directory) {
      completion(DSInvalidParameterError("directory", std::nullopt));
      return;
    }
    auto charges = std::make_shared<Charges>(peer_->account().charge(Kind::keyDirectory),
                                             peer_->account().charge(Kind::descriptor));
    const bool isRun = charges->first && charges->second &&
                       peer_->run([self = shared_from_this(), directory = *directory, charges,
                                   completion](UserAccount::Charge charge) {
                         completion(self->use(directory, std::move(*charges)));
                         charge = {};
                       });
    if (!isRun) completion(UserAccount::exhausted());
  }

 private:
  using Charges = std::pair<UserAccount::Charge, UserAccount::Charge>;

  std::optional<Error> use(const SharedDescriptor& directory, Charges charges) {
    if (!peer_->isOutsideOfSandboxes()) return DSNotPermittedError();
    auto store = peer_->asUser([&] { return SandboxKeyStore::at(directory, peer_->user().user); });
    if (!store) return DSNotPermittedError();
    if (!*store) return store->error();
    // One for a connection: the next takes the place of the last.
    for (const auto& [number, held] : handedOver_) keys_->remove(number);
    handedOver_.clear();
    handedOver_.emplace(keys_->add(**std::move(store)), std::move(charges));
    return std::nullopt;
  }

  static void redeem(const ServicePeer& peer, KeyDirectories& keys, const std::string& token,
                     const qx::Completion<Error, SharedDescriptor>& completion) {
    using Opened = qx::Result<qx::FileDescriptor>;
    const auto open = [&]() -> Opened {
      Opened opened = qx::posixError(EBADMSG, "There is no key for this user");
      for (const auto& store : keys.of(peer.user().user)) {
        opened = qx::consumeSandboxExtension(token, store);
        // Any other error is about the file: the token was good.
        if (opened || !opened.error().is(QXPOSIXErrorDomain, EBADMSG)) break;
      }
      return opened;
    };
    auto opened = peer.asUser(open);
    if (!opened) opened = Opened(DSNotPermittedError());
    if (!*opened) {
      DS_LOG("[NOTICE] PID %d presented a sandbox extension that is not good. Error: %@",
             peer.process().processIdentifier(), opened->error());
      completion(opened->error(), std::nullopt);
      return;
    }
    completion(std::nullopt, std::make_shared<const qx::FileDescriptor>(**std::move(opened)));
  }

  const std::shared_ptr<ServicePeer> peer_;
  const std::shared_ptr<KeyDirectories> keys_;
  // In the tasks that the peer has run.
  std::map<std::uint64_t, Charges> handedOver_;
};

}  // namespace

std::uint64_t KeyDirectories::add(SandboxKeyStore store) {
  const std::lock_guard lock(mutex_);
  handedOver_.emplace(++last_, std::move(store));
  return last_;
}

void KeyDirectories::remove(std::uint64_t number) {
  const std::lock_guard lock(mutex_);
  handedOver_.erase(number);
}

std::vector<SandboxKeyStore> KeyDirectories::of(uid_t user) {
  std::vector<SandboxKeyStore> all;
  if (!qx::Places::servesMachine()) {
    auto own = SandboxKeyStore::own();
    if (own && own->owner() == user) all.push_back(*std::move(own));
    return all;
  }
  {
    const std::lock_guard lock(mutex_);
    for (const auto& [number, store] : handedOver_) {
      if (store.owner() == user) all.push_back(store);
    }
  }
  if (auto known = defaultDirectory(user)) all.push_back(*std::move(known));
  return all;
}

std::shared_ptr<SandboxService> SandboxService::make(std::shared_ptr<UserAccounts> accounts) {
  auto service = std::make_shared<SandboxService>(std::move(accounts));
  service->listener_.setDelegate(service);
  return service;
}

SandboxService::SandboxService(std::shared_ptr<UserAccounts> accounts)
    : accounts_(std::move(accounts)), listener_(std::string(qx::sandboxServiceName)) {}

bool SandboxService::listener_shouldAcceptNewConnection(
    QXConduitListener& /*listener*/, const std::shared_ptr<QXConduitConnection>& connection) {
  auto peer = ServicePeer::accept(*connection, *accounts_);
  if (!peer) return false;
  connection->setExportedInterface(QXConduitInterface::interfaceWithProtocol<QXSandbox>());
  connection->setExportedObject<QXSandbox>(std::make_shared<SandboxClient>(std::move(peer), keys_));
  connection->resume();
  return true;
}
