#pragma once

#include "platform/base/Errors.h"
#include "tests/support/Daemons.h"
#include "tests/support/Grants.h"
#include "tests/support/Operations.h"
#include "tests/support/SelfProvider.h"
#include "tests/support/TemporaryRoot.h"
#include "tests/support/Wire.h"

namespace qx::test {

inline const Value absent;

/// The daemon with two providers, "A" and "B"; its client is this very process, which may be given
/// any entitlements.
class ServicerTest : public testing::Test {
 protected:
  static constexpr auto self = "com.example.self";

  void SetUp() override {
    entitle({{writeEntitlement, true}});
    a.install();
    b.install();
    start();
  }
  void start() {
    daemon.reset();
    daemon.emplace("docsourced", root);
    ASSERT_TRUE(eventually([this] {
      wire = connectTo(docSourceService);
      return wire.call(wakeUp, {}).outcome() == "success";
    }));
  }

  static void entitle(const Dictionary& entitlements) { beApplication(self, entitlements); }
  /// Absent when the file cannot be parsed.
  std::optional<std::set<std::string>> grants() const {
    return grantsIn(accessControlFileOf(root));
  }
  bool isGranted(const std::string& grant) const { return grants().value().contains(grant); }
  static void put(const URL& url) { std::ofstream(*url.path()) << "x"; }

  Wire::Answer call(const std::string& operation, const Array& arguments) {
    return wire.call(operation, arguments);
  }
  std::string outcome(const std::string& operation, const Array& arguments) {
    return call(operation, arguments).outcome();
  }
  /// How the log writes an argument.
  static std::string text(const Value& value) { return describe(value); }
  bool logs(const std::string& line) const {
    const bool isThere = daemon->logs(line);
    EXPECT_TRUE(isThere) << line;
    return isThere;
  }

  // First of all: the places are under it.
  const std::string root = temporaryRoot();
  const ProviderBundle a{"A"}, b{"B"};
  const std::string failure = "DSErrorDomain 8 (DSErrorDomain 8 (ProviderDomain 7))";
  std::optional<Daemon> daemon;
  Wire wire{FileDescriptor()};
};

}  // namespace qx::test
