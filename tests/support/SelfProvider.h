#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <optional>

#include "platform/conduit/QXConduitConnection.h"
#include "providers/_QXDocSourceExtensionHostContext.h"
#include "tests/support/BundleMaker.h"

/// A provider extension that is the test program itself, started once more by the extension host.
/// What it is to do lies in its bundle: a pipe "setup" (fifo(7)) where it reads how its set-up
/// ends; a file "deaf" lets it ignore the end of its connection, a file "stubborn" SIGTERM; with a
/// file "by-inode" items are named by their inode numbers.
namespace qx::test {

/// Items are named by their file name; "fail..." fails, "nameless" has no identifier, "hang..." is
/// never provided, and nothing that is asked about "silent" is answered.
class SelfProvider final : public _QXDocSourceVendor {
 public:
  void _performInitialSetupWithCompletion(Completion<std::string, URL, Error> reply) override {
    std::string end = "ok";
    if (std::filesystem::exists("setup")) std::getline(std::ifstream("setup"), end);
    if (end == "crash") _exit(1);
    if (end != "ok") return reply(std::nullopt, std::nullopt, Error("ProviderDomain", 7, end));
    if (const char* storage = std::getenv("QX_DOCUMENT_STORAGE");
        storage && !std::filesystem::exists("no-storage")) {
      std::filesystem::create_directories(storage);
    }
    reply(std::to_string(getpid()), std::nullopt, std::nullopt);
  }
  void _providePlaceholderAtURL_completion(const std::optional<URL>& url,
                                           Completion<URL, Error> reply) override {
    answer(url, [&](const auto& error, const auto&) { reply(url, error); });
  }
  void _startProvidingItemAtURL_completion(const std::optional<URL>& url,
                                           Completion<Error> reply) override {
    answer(url, [&](const auto& error, const std::string& name) {
      if (!name.starts_with("hang")) reply(error);
    });
  }
  void _readerOfItemAtURL_waitsForBytes_completion(const std::optional<URL>&,
                                                   const std::optional<Array>&,
                                                   Completion<> reply) override {
    reply();
  }
  void _itemChangedAtURL_completion(const std::optional<URL>& url,
                                    Completion<Error> reply) override {
    answer(url, [&](const auto& error, const auto&) { reply(error); });
  }
  void _stopProvidingItemAtURL_completion(const std::optional<URL>& url,
                                          Completion<Error> reply) override {
    answer(url, [&](const auto& error, const auto&) { reply(error); });
  }
  void _identifierForItemAtURL_completion(const std::optional<URL>& url,
                                          Completion<Error, std::string> reply) override {
    answer(url, [&](const auto& error, const std::string& name) {
      const bool hasNone = error || name == "nameless";
      const auto identifier = isByInode() ? inodeOf(*url->path()) : name;
      reply(error, hasNone ? std::nullopt : std::optional(identifier));
    });
  }
  void _URLForItemIdentifier_completion(const std::optional<std::string>& itemID,
                                        Completion<Error, URL> reply) override {
    if (isByInode()) {
      std::optional<URL> found;
      for (const auto& entry :
           std::filesystem::directory_iterator(std::getenv("QX_DOCUMENT_STORAGE"))) {
        if (inodeOf(entry.path()) == itemID) found = URL::fileURL(entry.path().string());
      }
      return reply(std::nullopt, found);
    }
    const auto url = URL::fileURL(std::getenv("QX_DOCUMENT_STORAGE") + ("/" + *itemID));
    answer(url, [&](const auto& error, const std::string& name) {
      const bool hasNone = error || name == "nameless";
      reply(error, hasNone ? std::nullopt : std::optional(url));
    });
  }

  static std::string inodeOf(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? std::to_string(status.st_ino) : "";
  }

 private:
  static bool isByInode() { return std::filesystem::exists("by-inode"); }

  template <class Reply>
  static void answer(const std::optional<URL>& url, Reply reply) {
    const std::string name = std::filesystem::path(url->path().value_or("")).filename();
    if (name == "silent") return;
    const bool fails = name.starts_with("fail");
    reply(fails ? std::optional(Error("ProviderDomain", 7, "no")) : std::nullopt, name);
  }
};

/// The entry point of such a test program.
inline int mainOfProviderOrTests(int count, char** arguments) {
  const char* number = std::getenv("QX_EXTENSION_CONNECTION");
  if (!number) {
    testing::InitGoogleTest(&count, arguments);
    return RUN_ALL_TESTS();
  }
  auto connection = QXConduitConnection::overSocket(FileDescriptor(std::atoi(number)));
  connection->setExportedInterface(
      _QXDocSourceExtensionHostContext::_extensionAuxiliaryVendorProtocol());
  connection->setExportedObject<_QXDocSourceVendor>(std::make_shared<SelfProvider>());
  connection->setRequestHandler([](bool, const UUID&) {});
  if (std::filesystem::exists("stubborn")) signal(SIGTERM, SIG_IGN);
  connection->setInvalidationHandler([] {
    if (!std::filesystem::exists("deaf")) _exit(0);
  });
  connection->resume();
  for (;;) pause();
}

/// The bundle of such a provider.
class ProviderBundle {
 public:
  explicit ProviderBundle(std::string identifier, std::string bundleName = "")
      : identifier_(std::move(identifier)),
        path_(Places::extensions() + "/" + (bundleName.empty() ? identifier_ : bundleName) +
              ".docext") {}

  const std::string& path() const { return path_; }
  std::string group() const { return "group." + identifier_; }
  std::string storage() const {
    return Places::groupContainers() + "/" + group() + "/Doc Source Storage";
  }
  URL url(const std::string& name) const { return URL::fileURL(storage() + "/" + name); }

  /// Makes it, or replaces its Info.plist; `documentGroup` null: none is named.
  void install() const { install(Value(group())); }
  void install(const Value& documentGroup, bool keepsRunning = false) const {
    std::filesystem::create_directories(path_);
    writeList(path_ + "/Entitlements.plist",
              Dictionary{{"com.veltro.application-groups", Array{Value(group())}}});
    Dictionary extension{{"QXExtensionPointName", docSourceExtensionPoint}};
    if (!documentGroup.isNull()) {
      extension.emplace("QXExtensionDocSourceDocumentGroup", documentGroup);
    }
    if (keepsRunning) extension.emplace("QXExtensionKeepsRunning", true);
    auto info = bundleInfo(identifier_, ownProgram());
    info.emplace("QXExtension", extension);
    writeList(path_ + "/Info.plist", info);
  }
  void remove() const { std::filesystem::remove_all(path_); }

  /// A place to meet the provider; before it is installed.
  void addPipe(const std::string& name) const {
    std::filesystem::create_directories(path_);
    if (mkfifo((path_ + "/" + name).c_str(), 0600) != 0) std::abort();
  }
  /// Waits until the provider is being set up, and ends that.
  void endSetup(const std::string& how) const { std::ofstream(path_ + "/setup") << how << "\n"; }
  bool isBeingSetUp() const {
    return bool(FileDescriptor(open((path_ + "/setup").c_str(), O_WRONLY | O_NONBLOCK)));
  }

 private:
  std::string identifier_;
  std::string path_;
};

}  // namespace qx::test
