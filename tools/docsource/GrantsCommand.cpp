// The grants, and taking one back. The broker tells and does it; while it is away its
// access-control file tells: provider, consumer, "AllowedItemIDs". What in the file has another
// shape is no grant, and is not shown.

#include <algorithm>
#include <cstdio>

#include "platform/base/Errors.h"
#include "platform/files/Places.h"
#include "platform/plist/PropertyList.h"
#include "tools/docsource/Accounts.h"
#include "tools/docsource/Command.h"
#include "tools/docsource/Location.h"
#include "tools/docsource/Output.h"

namespace tool {
namespace {

using docsource::Client;
using docsource::Grant;
using Grants = std::vector<Grant>;

void addGrantsOf(const std::string& provider, const std::string& consumer, const qx::Value& entry,
                 Grants& grants) {
  const auto* dictionary = entry.as<qx::Dictionary>();
  const auto* items = dictionary ? qx::find<qx::Array>(*dictionary, "AllowedItemIDs") : nullptr;
  if (!items) return;
  for (const auto& value : *items) {
    if (const auto* item = value.as<std::string>()) {
      grants.push_back({provider, *item, consumer, std::nullopt});
    }
  }
}

Grants grantsIn(const qx::Value& list) {
  Grants grants;
  const auto* providers = list.as<qx::Dictionary>();
  if (!providers) return grants;
  for (const auto& [provider, value] : *providers) {
    const auto* consumers = value.as<qx::Dictionary>();
    if (!consumers) continue;
    for (const auto& [consumer, entry] : *consumers) {
      addGrantsOf(provider, consumer, entry, grants);
    }
  }
  return grants;
}

int printGrants(const Arguments& arguments, const Grants& grants) {
  qx::Array array;
  std::vector<std::string> headings{"PROVIDER", "CONSUMER", "ITEM"};
  std::vector<std::vector<std::string>> rows;
  const bool hasPaths = std::any_of(grants.begin(), grants.end(),
                                    [](const Grant& grant) { return grant.url.has_value(); });
  if (hasPaths) headings.emplace_back("DOCUMENT");
  const auto accounts = installedAccounts();
  for (const auto& grant : grants) {
    qx::Dictionary object{{"providerIdentifier", grant.provider},
                          {"consumerIdentifier", grant.consumer},
                          {"itemID", grant.item}};
    if (grant.url) object.emplace("url", *grant.url);
    array.emplace_back(std::move(object));
    rows.push_back({grant.provider, grant.consumer, grant.item});
    if (hasPaths) {
      rows.back().push_back(grant.url ? inFamiliarWords(readable(*grant.url), accounts) : "");
    }
  }
  return answer(arguments.json, {{"grants", std::move(array)}},
                rows.empty() ? "Nothing has been granted.\n" : table(headings, rows));
}

/// Whether there are more grants than one answer of the broker holds.
bool isTooMuch(const docsource::Error& error) { return error.is(docsource::conduitErrorDomain, 5); }

int printFile(const Arguments& arguments) {
  const std::string path = qx::Places::home() + "/Library/DocSource/AccessControl.plist";
  const auto list = qx::PropertyList::readFile(path);
  if (list) return printGrants(arguments, grantsIn(*list));
  if (list.error().is(QXStandardErrorDomain, qx::fileNoSuchFileError)) {
    return printGrants(arguments, {});
  }
  return fail(arguments, complaint(path + " cannot be read: " + list.error().text()));
}

}  // namespace

int grants(const Arguments& arguments) {
  const auto grants = Client(arguments.timeout).grants();
  if (grants) return printGrants(arguments, *grants);
  // Whoever may read the file needs no entitlement to look at it.
  const bool isForTheFile = grants.error().isConnectionFailure() || isTooMuch(grants.error()) ||
                            grants.error().is("DSErrorDomain", 6);
  return isForTheFile ? printFile(arguments) : fail(arguments, grants.error());
}

/// An identifier that was granted is one; anything else is the path of a document, which its
/// provider names.
int revoke(const Arguments& arguments) {
  Client client(arguments.timeout);
  const auto grants = client.grants();
  if (!grants && !isTooMuch(grants.error())) return fail(arguments, grants.error());
  std::optional<std::string> item;
  const auto url = urlFromArgument(arguments.subject);
  for (const auto& grant : grants ? *grants : Grants()) {
    if (grant.provider != arguments.provider || grant.consumer != arguments.consumer) continue;
    if (grant.item == arguments.subject) item = grant.item;
    if (!item && grant.url == url) item = grant.item;
  }
  if (!item) {
    const auto prefix = "docsource:" + arguments.provider + "/";
    const auto bookmark = client.bookmarkableString(url);
    if (bookmark && *bookmark && (*bookmark)->starts_with(prefix)) {
      item = (*bookmark)->substr(prefix.size());
    }
  }
  if (grants && !item) {
    return fail(arguments, complaint("There is no such grant: " + arguments.subject + " of " +
                                     arguments.provider + " to " + arguments.consumer +
                                     " (docsource grants lists them)"));
  }
  const auto revoked =
      client.revoke(item.value_or(arguments.subject), arguments.provider, arguments.consumer);
  return revoked ? answer(arguments.json, {{"itemID", item.value_or(arguments.subject)}}, "")
                 : fail(arguments, revoked.error());
}

}  // namespace tool
