#include "extensions/account/AccountProgram.h"

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <string>
#include <string_view>

#include "platform/plist/PropertyList.h"
#include "sdk/src/Bridge.h"

namespace account {
namespace {

docsource::Result<std::string> tryOut(const AccountProvider::MakeRemote& makeRemote) {
  const auto list = qx::PropertyList::read(std::cin);
  if (!list) return docsource::bridge::fromPlatform(list.error());
  const auto* settings = list->as<qx::Dictionary>();
  if (!settings) return docsource::Error::posix(EINVAL, "The settings are no dictionary.");
  const auto remote = makeRemote([&](const std::string& key) {
    const auto* value = qx::find<std::string>(*settings, key);
    return value ? std::optional(*value) : std::nullopt;
  });
  if (!remote) return remote.error();
  const auto identity = (*remote)->identity(false);
  if (!identity) return identity.error();
  // Servers could; of a directory nobody expects it.
  const bool isServer = settings->contains(urlKey);
  if (!isServer || (*remote)->capabilities().conditions) return std::string();
  return std::string(
      "It does not compare versions itself: what somebody else changes there in the moment of an "
      "upload is overwritten (docs/servers.md).");
}

}  // namespace

int runProgram(int argc, char** argv, const AccountProvider::MakeRemote& makeRemote) {
  if (argc < 2 || std::string_view(argv[1]) != "--try") return AccountProvider(makeRemote).run();
  const auto outcome = tryOut(makeRemote);
  const auto text = outcome ? *outcome : outcome.error().description();
  if (!text.empty()) std::printf("%s\n", text.c_str());
  return outcome && std::fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace account
