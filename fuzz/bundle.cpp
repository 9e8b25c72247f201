// Bundles of provider extensions. The input is the Info.plist, and behind a zero byte the
// Entitlements.plist where there is one.

#include <sys/stat.h>

#include <fstream>
#include <memory>

#include "fuzz/Fuzz.h"
#include "platform/extension/CatalogExtensionProxy.h"
#include "platform/identity/Bundles.h"
#include "tests/support/TemporaryRoot.h"

using namespace qx;
using fuzz::require;

namespace {

namespace fs = std::filesystem;

std::string bundlePath() { return Places::extensions() + "/fuzz.docext"; }

void prepare() {
  fuzz::muteLog();
  test::temporaryRoot();
  fs::create_directories(bundlePath());
  std::ofstream(bundlePath() + "/program") << "#!/bin/false";
  ::chmod((bundlePath() + "/program").c_str(), 0700);
  fs::create_symlink("program", bundlePath() + "/p");
}

void replace(const std::string& name, const std::optional<std::string>& text) {
  const auto path = bundlePath() + "/" + name;
  if (!text) {
    fs::remove(path);
    return;
  }
  std::ofstream(path + ".new", std::ofstream::binary) << *text;
  fs::rename(path + ".new", path);
}

void checkGroups(const std::shared_ptr<const Bundle>& bundle) {
  const auto containers = fs::path(Places::groupContainers());
  for (const auto& [group, url] : CatalogExtensionProxy(bundle).groupContainerURLs()) {
    auto path = url.path();
    require(path.has_value() && path->ends_with('/'), "a group container is a directory");
    path->pop_back();
    const auto resolved = fs::path(*path).lexically_normal();
    require(resolved == *path && resolved.parent_path() == containers,
            "a group container is an entry of the containers' directory");
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool prepared = (prepare(), true);
  const std::string text(fuzz::textOf({data, size}));
  const auto end = text.find('\0');
  std::optional<std::string> entitlements;
  if (end != std::string::npos) entitlements = text.substr(end + 1);
  replace("Entitlements.plist", entitlements);
  replace("Info.plist", text.substr(0, end));

  const auto read = readBundle(BundleKind::extension, bundlePath());
  const auto installed = BundleCatalog::shared().bundles(BundleKind::extension);
  require(installed.size() == (read.ok() ? 1U : 0U), "the catalog has what can be read");
  if (!read) {
    require(!read.error().description().empty(), "an error says what is wrong");
    return 0;
  }
  const auto& bundle = installed.front();
  require(bundle->identifier == read->identifier && bundle->executable == read->executable &&
              bundle->infoStamp == read->infoStamp,
          "the catalog has the bundle as it is now");
  require(!bundle->identifier.empty() && bundle->executable.starts_with('/'),
          "a bundle has an identifier and an executable");
  require(fs::is_regular_file(bundle->executable), "the executable is a file");
  require(BundleCatalog::shared().bundle(BundleKind::extension, bundle->identifier) == bundle,
          "a bundle is found by its identifier");
  require(CatalogExtensionProxy::catalogProxyForIdentifier(bundle->identifier) != nullptr,
          "the extension has a record");
  checkGroups(bundle);
  return 0;
}
