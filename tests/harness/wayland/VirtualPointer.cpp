// Gives a headless sway's seat a pointer: without an input device the seat has none, and
// sway's own cursor commands (`swaymsg seat - cursor ...`) then reach no client. Prints
// "ready" once the compositor has the device and keeps it until standard input closes.
#include <wayland-client.h>

#include <cstdio>
#include <cstring>

#include "wlr-virtual-pointer-unstable-v1-client-protocol.h"

namespace {

struct Globals {
  wl_seat* seat = nullptr;
  zwlr_virtual_pointer_manager_v1* manager = nullptr;
};

void announce(void* data, wl_registry* registry, uint32_t name, const char* interface,
              uint32_t /*version*/) {
  auto* globals = static_cast<Globals*>(data);
  if (std::strcmp(interface, wl_seat_interface.name) == 0 && globals->seat == nullptr) {
    globals->seat = static_cast<wl_seat*>(wl_registry_bind(registry, name, &wl_seat_interface, 1));
  } else if (std::strcmp(interface, zwlr_virtual_pointer_manager_v1_interface.name) == 0) {
    globals->manager = static_cast<zwlr_virtual_pointer_manager_v1*>(
        wl_registry_bind(registry, name, &zwlr_virtual_pointer_manager_v1_interface, 1));
  }
}

void withdraw(void*, wl_registry*, uint32_t) {}

const wl_registry_listener kRegistryListener = {announce, withdraw};

}  // namespace

int main() {
  wl_display* display = wl_display_connect(nullptr);
  if (display == nullptr) {
    std::fprintf(stderr, "no Wayland display\n");
    return 1;
  }
  Globals globals;
  wl_registry_add_listener(wl_display_get_registry(display), &kRegistryListener, &globals);
  wl_display_roundtrip(display);
  if (globals.manager == nullptr) {
    std::fprintf(stderr, "the compositor offers no virtual pointers\n");
    return 1;
  }
  zwlr_virtual_pointer_manager_v1_create_virtual_pointer(globals.manager, globals.seat);
  wl_display_roundtrip(display);
  std::printf("ready\n");
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  wl_display_disconnect(display);
  return 0;
}
