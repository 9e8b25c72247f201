#include "extensions/account/AccountProvider.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "sdk/src/Bridge.h"

using docsource::Error;
using docsource::Mirror;
using docsource::Result;

namespace {

std::string hostName() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "here";
}

}  // namespace

Result<std::shared_ptr<Mirror>> AccountProvider::mirror() {
  const std::lock_guard lock(mutex_);
  if (mirror_) return mirror_;
  if (!documentStorage()) {
    return Error::posix(EINVAL, "The bundle of the account names no document group");
  }
  auto remote = makeRemote_([this](const std::string& key) { return infoString(key); });
  if (!remote) return remote.error();
  docsource::MirrorOptions options;
  options.storage = *documentStorage();
  options.state = options.storage.substr(0, options.storage.rfind('/')) + "/Mirror";
  options.host = hostName();
  if (const auto keep = infoString(account::keepKey)) {
    options.keep = std::strtoull(keep->c_str(), nullptr, 10);
  }
  auto made = std::make_shared<Mirror>(std::move(options), *std::move(remote));
  if (auto started = made->start(); !started) return started.error();
  auto service = AccountService::serve(identifier(), made);
  if (!service) return docsource::bridge::fromPlatform(service.error());
  service_ = *std::move(service);
  mirror_ = made;
  return made;
}

void AccountProvider::begin() {
  const auto running = mirror();
  if (!running) std::fprintf(stderr, "%s\n", running.error().text().c_str());
}

Result<void> AccountProvider::performInitialSetup() {
  const auto running = mirror();
  return running ? Result<void>() : running.error();
}

Result<void> AccountProvider::providePlaceholder(const std::string& path) {
  const auto running = mirror();
  if (!running) return running.error();
  // Everything that the remote is known to have is there.
  const auto status = (*running)->status(path);
  return status ? Result<void>() : status.error();
}

Result<void> AccountProvider::startProviding(const std::string& path) {
  const auto running = mirror();
  return running ? (*running)->provide(path) : running.error();
}

void AccountProvider::readerWaits(const std::string& path, std::uint64_t offset,
                                  std::uint64_t size) {
  if (const auto running = mirror()) (*running)->hurry(path, offset, size);
}

Result<void> AccountProvider::itemChanged(const std::string& path) {
  const auto running = mirror();
  if (!running) return running.error();
  (*running)->itemChanged(path);
  return {};
}

Result<void> AccountProvider::stopProviding(const std::string& path) {
  const auto running = mirror();
  if (!running) return running.error();
  const auto evicted = (*running)->evict(path);
  // What is in use, pinned or not uploaded stays; that nobody needs it is no reason to complain.
  const bool isBusy = !evicted && evicted.error().underlying() &&
                      evicted.error().underlying()->is(docsource::posixErrorDomain, EBUSY);
  return isBusy ? Result<void>() : evicted;
}

Result<std::string> AccountProvider::identifierForItem(const std::string& path) {
  const auto running = mirror();
  return running ? (*running)->identifierForItem(path) : running.error();
}

Result<std::string> AccountProvider::pathForItem(const std::string& identifier) {
  const auto running = mirror();
  return running ? (*running)->pathForItem(identifier) : running.error();
}
