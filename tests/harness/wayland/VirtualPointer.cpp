// Gives a headless sway's seat a pointer: without an input device the seat has none, and
// sway's own cursor commands (`swaymsg seat - cursor ...`) then reach no client. Prints
// "ready" once the compositor has the device and keeps it until standard input closes.
#include <wayland-client.h>

#include <cstdio>
#include <cstring>

#include "wlr-virtual-pointer-unstable-v1-client-protocol.h"

namespace {

zwlr_virtual_pointer_manager_v1* manager = nullptr;

void announce(void*, wl_registry* registry, uint32_t name, const char* interface, uint32_t) {
  if (std::strcmp(interface, zwlr_virtual_pointer_manager_v1_interface.name) == 0) {
    manager = static_cast<zwlr_virtual_pointer_manager_v1*>(
        wl_registry_bind(registry, name, &zwlr_virtual_pointer_manager_v1_interface, 1));
  }
}

void withdraw(void*, wl_registry*, uint32_t) {}

const wl_registry_listener kRegistryListener = {announce, withdraw};

}  // namespace

int main() {
  wl_display* display = wl_display_connect(nullptr);
  if (display == nullptr) {
    return 1;
  }
  wl_registry_add_listener(wl_display_get_registry(display), &kRegistryListener, nullptr);
  wl_display_roundtrip(display);
  if (manager == nullptr) {
    return 1;
  }
  // Without a seat the compositor picks its default one.
  zwlr_virtual_pointer_manager_v1_create_virtual_pointer(manager, nullptr);
  wl_display_roundtrip(display);
  std::printf("ready\n");
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  wl_display_disconnect(display);
}
