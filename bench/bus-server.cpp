// The peer of a call: a service of the session bus with one method that takes nothing, returns
// nothing, and does nothing (sd_bus_add_object_vtable(3)).

#include <systemd/sd-bus.h>

#include <array>

#include "bench/Figures.h"

int main() {
  static const std::array<sd_bus_vtable, 3> table{{
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD(
          "WakeUp", "", "",
          [](sd_bus_message* call, void*, sd_bus_error*) {
            return sd_bus_reply_method_return(call, "");
          },
          SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_VTABLE_END,
  }};
  sd_bus* bus = nullptr;
  if (sd_bus_open_user(&bus) < 0 ||
      sd_bus_add_object_vtable(bus, nullptr, "/bench", "org.example.Bench", table.data(), nullptr) <
          0 ||
      sd_bus_request_name(bus, "org.example.Bench", 0) < 0) {
    bench::fail("the bus cannot be had");
  }
  for (;;) {
    const int done = sd_bus_process(bus, nullptr);
    if (done < 0) return 0;
    if (done == 0) sd_bus_wait(bus, UINT64_MAX);
  }
}
