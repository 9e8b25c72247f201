#include "tools/docsource/World.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "platform/base/Errors.h"

namespace tool {
namespace {

struct Wish {
  const char* key;
  const char* word;
  bool World::*place;
  const char* meaning;
};
constexpr std::array wishes{
    Wish{"QXSandboxWayland", "Wayland", &World::wayland,
         "It shows windows, and gets what is typed into them."},
    Wish{"QXSandboxX11", "X11", &World::x11,
         "It shows windows; under X11 it can also see other windows and what is typed there."},
    Wish{"QXSandboxSound", "sound", &World::sound, "It plays sound, and records it."},
    Wish{"QXSandboxNetwork", "network", &World::network,
         "It reaches the network, and the services that listen on this machine."},
};
constexpr const char* namesKey = "QXSandboxSessionBusNames";
constexpr std::string_view busWord = "bus:";

qx::Error unusable(const qx::Bundle& bundle, const std::string& key, const std::string& what) {
  return {std::string(QXStandardErrorDomain), qx::fileUnknownError,
          "In the Info.plist of " + bundle.path + " " + key + " is " + what + "."};
}

/// A well-known name of a bus, with ".*" behind it or not.
bool isBusName(std::string_view name) {
  if (name.ends_with(".*")) name.remove_suffix(2);
  constexpr std::size_t longest = 255;
  const auto isIn = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '.';
  };
  return name.size() <= longest && name.find('.') != std::string_view::npos &&
         !name.starts_with('.') && !name.ends_with('.') &&
         name.find("..") == std::string_view::npos && std::all_of(name.begin(), name.end(), isIn);
}

}  // namespace

qx::Result<World> World::wantedBy(const qx::Bundle& bundle) {
  World world;
  for (const auto& wish : wishes) {
    const auto* value = qx::find(bundle.info, wish.key);
    if (!value) continue;
    const auto* isWanted = value->as<bool>();
    if (!isWanted) return unusable(bundle, wish.key, "neither true nor false");
    world.*wish.place = *isWanted;
  }
  const auto* names = qx::find(bundle.info, namesKey);
  if (!names) return world;
  const auto* all = names->as<qx::Array>();
  if (!all) return unusable(bundle, namesKey, "no array");
  for (const auto& each : *all) {
    const auto* name = each.as<std::string>();
    if (!name || !isBusName(*name)) {
      return unusable(bundle, namesKey, "no array of names on the bus");
    }
    world.busNames.push_back(*name);
  }
  return world;
}

std::vector<std::string> World::words() const {
  std::vector<std::string> all;
  for (const auto& wish : wishes) {
    if (this->*wish.place) all.emplace_back(wish.word);
  }
  for (const auto& name : busNames) all.push_back(std::string(busWord) + name);
  return all;
}

std::string meaningOf(const std::string& word) {
  for (const auto& wish : wishes) {
    if (word == wish.word) return wish.meaning;
  }
  return "It has done by " + word.substr(busWord.size()) + " what that does for you.";
}

}  // namespace tool
