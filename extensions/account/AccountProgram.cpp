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

docsource::Result<Settings> settingsFromInput() {
  const auto list = qx::PropertyList::read(std::cin);
  if (!list) return docsource::bridge::fromPlatform(list.error());
  const auto* settings = list->as<qx::Dictionary>();
  if (!settings) return docsource::Error::posix(EINVAL, "The settings are no dictionary.");
  return Settings([settings = *settings](const std::string& key) {
    const auto* value = qx::find<std::string>(settings, key);
    return value ? std::optional(*value) : std::nullopt;
  });
}

docsource::Result<std::string> tryOut(const AccountProvider::MakeRemote& makeRemote) {
  const auto setting = settingsFromInput();
  if (!setting) return setting.error();
  const auto remote = makeRemote(*setting);
  if (!remote) return remote.error();
  const auto identity = (*remote)->identity(false);
  if (!identity) return identity.error();
  // Servers could; of a directory nobody expects it.
  const bool isServer = (*setting)(urlKey).has_value();
  if (!isServer || (*remote)->capabilities().conditions) return std::string();
  return std::string(
      "This server does not compare versions itself: what somebody else changes there at the "
      "moment of an upload is overwritten.");
}

docsource::Result<std::string> logInByPage(const LogIn& logIn) {
  const auto setting = settingsFromInput();
  if (!setting) return setting.error();
  const auto login = logIn(*setting, [](const std::string& page) {
    std::printf("%s\n", page.c_str());
    std::fflush(stdout);
  });
  if (!login) return login.error();
  return login->url + "\n" + login->user + "\n" + login->password;
}

}  // namespace

int runProgram(int argc, char** argv, const AccountProvider::MakeRemote& makeRemote,
               const LogIn& logIn) {
  const std::string_view asked = argc < 2 ? "" : argv[1];
  const bool isLogin = asked == "--login" && logIn;
  if (asked != "--try" && !isLogin) return AccountProvider(makeRemote).run();
  const auto outcome = isLogin ? logInByPage(logIn) : tryOut(makeRemote);
  const auto text = outcome ? *outcome : outcome.error().description();
  if (!text.empty()) std::printf("%s\n", text.c_str());
  return outcome && std::fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace account
