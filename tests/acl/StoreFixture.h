#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "acl/DSAccessControlStore.h"
#include "platform/files/FileManager.h"
#include "platform/plist/PropertyList.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TemporaryDirectory.h"

/// A root of its own and the messages that were logged; the store is made by the test, once the
/// file is as it wants it.
class StoreFixture : public testing::Test {
 protected:
  using Store = DSAccessControlStore;

  StoreFixture() {
    ::setenv("DOCSOURCE_ROOT", root.path().c_str(), 1);
    ds_default_log().setLowestLevel(qx::LogLevel::debug);
  }

  std::string directory() const { return root / "Home/Library/DocSource"; }
  std::string path() const { return directory() + "/AccessControl.plist"; }

  void putFile(std::string_view text) const {
    std::filesystem::create_directories(directory());
    std::ofstream(path(), std::ofstream::binary) << text;
  }
  void putList(std::string_view value) const {
    putFile("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" +
            std::string(value) + "</plist>\n");
  }
  std::string fileText() const {
    auto text = qx::FileManager::readFile(path());
    return text ? *text : "(no file)";
  }
  /// Null when there is none that can be read.
  qx::Value fileList() const {
    auto value = qx::PropertyList::readFile(path());
    return value ? *value : qx::Value();
  }
  /// Another file stands there after each write.
  std::pair<ino_t, std::int64_t> fileIdentity() const {
    struct stat status {};
    ::stat(path().c_str(), &status);
    return {status.st_ino, status.st_mtim.tv_sec * 1'000'000'000 + status.st_mtim.tv_nsec};
  }

  static qx::Dictionary entry(const std::string& consumer, qx::Array items) {
    return {{consumer, qx::Dictionary{{"AllowedItemIDs", std::move(items)}}}};
  }

  static void allow(Store& store, const std::string& provider, const std::string& item,
                    const std::string& consumer) {
    store.allowProviderWithIdentifier_toProvideItemID_toConsumerWithIdentifier(provider, item,
                                                                               consumer);
  }
  static void disallow(Store& store, const std::string& provider, const std::string& item,
                       const std::string& consumer) {
    store.disallowProviderWithIdentifier_fromProvidingItemWithID_toConsumerWithIdentifier(
        provider, item, consumer);
  }
  /// Asks in both ways, which agree on arguments that are there and not empty.
  static bool isAllowed(Store& store, const std::string& provider, const std::string& item,
                        const std::string& consumer) {
    const bool first =
        store.isProviderWithIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(
            provider, item, consumer);
    const bool second = store.isProviderIdentifier_allowedToProvideItemID_toConsumerWithIdentifier(
        provider, item, consumer);
    EXPECT_TRUE(first == second || provider.empty() || item.empty());
    return first;
  }
  static void reread(Store& store) {
    store.rereadAccessControl();
    store.syncQueue()->sync([] {});
  }

  using Lines = std::vector<std::string>;
  static Lines takeLines() { return qx::test::LogCapture::mailbox().take(); }

  static constexpr auto committing = "[INFO] Committing access control list";
  static constexpr auto readFromDisk = "[INFO] Successfully read access control from disk.";

  const qx::test::TemporaryDirectory root;
  const qx::test::LogCapture log;
};
