// A provider extension whose documents are always there: nothing but the exchange is left to
// measure. An item's identifier is its name.

#include <docsource/provider.h>

#include <filesystem>

using docsource::Result;

class TrivialProvider final : public docsource::Provider {
 protected:
  Result<void> performInitialSetup() override {
    std::error_code error;
    std::filesystem::create_directories(*documentStorage(), error);
    if (error) return docsource::Error::file(error.value(), *documentStorage());
    return {};
  }
  Result<void> providePlaceholder(const std::string&) override { return {}; }
  Result<void> startProviding(const std::string&) override { return {}; }
  Result<void> itemChanged(const std::string&) override { return {}; }
  Result<void> stopProviding(const std::string&) override { return {}; }
  Result<std::string> identifierForItem(const std::string& path) override {
    return path.substr(path.rfind('/') + 1);
  }
  Result<std::string> pathForItem(const std::string& identifier) override {
    return *documentStorage() + "/" + identifier;
  }
};

int main() { return TrivialProvider().run(); }
