// What the tool asks of a desktop, as freedesktop.org describes it: the interface of file managers
// and that of notifications.

#include "tools/docsource/Desktop.h"

#include <systemd/sd-bus.h>

#include <cstdlib>
#include <memory>

#include "platform/base/URL.h"

namespace tool::desktop {
namespace {

struct Closing {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, Closing>;
using Message = std::unique_ptr<sd_bus_message, Closing>;

Bus sessionBus() {
  sd_bus* bus = nullptr;
  return Bus(sd_bus_open_user(&bus) >= 0 ? bus : nullptr);
}

/// The text of a notification is markup.
std::string escaped(const std::string& text) {
  std::string markup;
  for (const char c : text) {
    if (c == '&') {
      markup += "&amp;";
    } else if (c == '<') {
      markup += "&lt;";
    } else if (c == '>') {
      markup += "&gt;";
    } else {
      markup += c;
    }
  }
  return markup;
}

bool isSet(const char* variable) {
  const char* value = std::getenv(variable);
  return value && *value;
}

}  // namespace

bool isThere() { return isSet("WAYLAND_DISPLAY") || isSet("DISPLAY"); }

bool showDirectory(const std::string& path) {
  const auto bus = sessionBus();
  const auto url = qx::URL::fileURL(path).absoluteString();
  return bus && sd_bus_call_method(bus.get(), "org.freedesktop.FileManager1",
                                   "/org/freedesktop/FileManager1", "org.freedesktop.FileManager1",
                                   "ShowFolders", nullptr, nullptr, "ass", 1, url.c_str(), "") >= 0;
}

std::uint32_t notify(const std::string& title, const std::string& text, std::uint32_t replaced) {
  const auto bus = sessionBus();
  if (!bus) return 0;
  sd_bus_message* answered = nullptr;
  constexpr const char* service = "org.freedesktop.Notifications";
  const int sent =
      sd_bus_call_method(bus.get(), service, "/org/freedesktop/Notifications", service, "Notify",
                         nullptr, &answered, "susssasa{sv}i", "DocSource", replaced,
                         "folder-remote", title.c_str(), escaped(text).c_str(), 0, 0, -1);
  const Message answer(answered);
  std::uint32_t number = 0;
  if (sent < 0 || sd_bus_message_read(answer.get(), "u", &number) < 0) return 0;
  return number;
}

}  // namespace tool::desktop
