#include "tools/docsource/Units.h"

#include <systemd/sd-bus.h>

#include <cstdlib>
#include <memory>

namespace tool {
namespace {

struct Freeing {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
  void operator()(char* text) const { std::free(text); }
};

constexpr const char* service = "org.freedesktop.systemd1";

std::string property(sd_bus* bus, const std::string& object, const char* interface,
                     const char* name) {
  char* text = nullptr;
  const int got =
      sd_bus_get_property_string(bus, service, object.c_str(), interface, name, nullptr, &text);
  const std::unique_ptr<char, Freeing> owned(text);
  return got >= 0 && text ? text : "";
}

}  // namespace

std::optional<Unit> unitCalled(ServiceManager manager, const std::string& name) {
  sd_bus* opened = nullptr;
  const int connected =
      manager == ServiceManager::system ? sd_bus_open_system(&opened) : sd_bus_open_user(&opened);
  const std::unique_ptr<sd_bus, Freeing> bus(connected >= 0 ? opened : nullptr);
  if (!bus) return std::nullopt;
  sd_bus_message* answered = nullptr;
  const int loaded = sd_bus_call_method(bus.get(), service, "/org/freedesktop/systemd1",
                                        "org.freedesktop.systemd1.Manager", "LoadUnit", nullptr,
                                        &answered, "s", name.c_str());
  const std::unique_ptr<sd_bus_message, Freeing> answer(answered);
  const char* path = nullptr;
  if (loaded < 0 || sd_bus_message_read(answer.get(), "o", &path) < 0) return std::nullopt;
  const std::string object = path;
  constexpr const char* unit = "org.freedesktop.systemd1.Unit";
  const auto loadState = property(bus.get(), object, unit, "LoadState");
  if (loadState.empty() || loadState == "not-found") return std::nullopt;
  const bool isSocket = name.ends_with(".socket");
  return Unit{
      property(bus.get(), object, unit, "ActiveState"),
      property(bus.get(), object, unit, "UnitFileState"),
      property(bus.get(), object,
               isSocket ? "org.freedesktop.systemd1.Socket" : "org.freedesktop.systemd1.Service",
               "Result")};
}

}  // namespace tool
