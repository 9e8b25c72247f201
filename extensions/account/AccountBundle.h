#pragma once

#include <optional>
#include <string>
#include <vector>

#include "extensions/account/Settings.h"
#include "platform/base/Result.h"
#include "platform/base/Value.h"
#include "platform/identity/Bundles.h"

/// An account is an extension bundle of its user that the tool makes: "account-NAME.docext". Its
/// settings are strings in the QXExtension dictionary of its Info.plist; secrets are never among
/// them. Both ends, the tool and the account's process, know it by this.
namespace account {

struct Account {
  std::string name;
  /// Of its bundle, and of the service of its process.
  std::string identifier;
  /// That of kindKey.
  std::string kind;
  /// Where the documents live, as a person wrote it.
  std::string source;
  std::string bundle;
  /// The group container: the document storage and the mirror's own directory are in it.
  std::string container;
  std::string storage;
};

/// What is wrong with a name, one sentence; absent for a good one. A name is part of file names.
std::optional<std::string> problemOfName(const std::string& name);

/// Info.plist and Entitlements.plist of an account to be.
struct Lists {
  qx::Dictionary info;
  qx::Dictionary entitlements;
};
Lists listsFor(const std::string& name, const std::string& kind, const std::string& executable,
               const qx::Dictionary& settings);

std::string identifierOf(const std::string& name);
/// "account-NAME".
std::string bundleNameOf(const std::string& name);
/// Absent for the bundle of anything else.
std::optional<Account> accountOf(const qx::Bundle& bundle);

}  // namespace account
