// Bookmarkable strings, as a client hands them to the daemon. The client is this program; it was
// granted some items of a provider that is not installed. A string that names one of them waits for
// the provider, that is, it is never answered; every other one is refused, as no bookmarkable
// string or as one of an item that was not granted.

#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "acl/DSAccessControlStore.h"
#include "fuzz/Fuzz.h"
#include "platform/base/Errors.h"
#include "platform/conduit/QXConduitConnection.h"
#include "servicer/DSConduitServicer.h"
#include "tests/support/BundleMaker.h"
#include "tests/support/Gate.h"
#include "tests/support/RawPeer.h"
#include "tests/support/TemporaryRoot.h"

using namespace qx;
using fuzz::require;

namespace {

constexpr const char* client = "com.example.fuzz";

const std::vector<std::pair<std::string, std::string>>& grantedItems() {
  static const auto& items = *new std::vector<std::pair<std::string, std::string>>{
      {"P", "i"}, {"com.example.provider", "a/b//c"}, {"docsource:", "docsource:"}, {"“P”", " "}};
  return items;
}

/// Makes this program an application and gives it its grants.
std::shared_ptr<DSConduitServicer> makeServicer() {
  fuzz::muteLog();
  test::temporaryRoot();
  test::beApplication(client, {});
  for (const auto& [provider, item] : grantedItems()) {
    DSAccessControlStore::sharedStore()
        ->allowProviderWithIdentifier_toProvideItemID_toConsumerWithIdentifier(provider, item,
                                                                               client);
  }
  static auto& connection = *new std::shared_ptr<QXConduitConnection>;
  connection = QXConduitConnection::overSocket(test::socketPair().first);
  auto servicer = std::make_shared<DSConduitServicer>();
  servicer->setConnection(connection);
  return servicer;
}

/// What a call came to: the error of its answer, or absent when it was dropped unanswered.
std::optional<Error> outcomeOf(DSConduitServicer& servicer, const std::string& string) {
  struct Outcome {
    std::optional<Error> error;
    test::Gate dropped;
  };
  const auto outcome = std::make_shared<Outcome>();
  {
    // Called when the last copy of the completion is gone.
    const std::shared_ptr<void> end(nullptr, [outcome](void*) { outcome->dropped.pass(); });
    servicer.documentURLFromBookmarkableString_completion(
        string, [outcome, end](const auto&, const auto&, const auto&, const auto&,
                               const std::optional<Error>& error) {
          require(!outcome->error, "a call is answered once");
          require(error.has_value(), "there is no provider that could have answered");
          outcome->error = error;
        });
  }
  outcome->dropped.wait();
  return outcome->error;
}

bool isGranted(const std::string& string) {
  for (const auto& [provider, item] : grantedItems()) {
    if (string == "docsource:" + provider + "/" + item) return true;
  }
  return false;
}

/// The form of a bookmarkable string, said in another way than the daemon's.
bool isWellFormed(const std::string& string) {
  static const auto& form = *new std::regex("docsource:[^/]+/[^/]");
  return std::regex_search(string, form, std::regex_constants::match_continuous);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const auto& servicer = *new std::shared_ptr<DSConduitServicer>(makeServicer());
  const std::string string(fuzz::textOf({data, size}));
  const auto error = outcomeOf(*servicer, string);
  const auto expected = isGranted(string)      ? std::optional<Error>()
                        : isWellFormed(string) ? std::optional(DSNotPermittedError())
                                               : std::optional(DSInvalidBookmarkableStringError());
  require(error == expected, "a bookmarkable string is worth what was granted");
  return 0;
}
