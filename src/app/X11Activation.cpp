#include "app/X11Activation.h"

#include <xcb/xcb.h>

#include <QGuiApplication>
#include <QWidget>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace quellix {
namespace {

// The source of an activation request: 2 is a pager or taskbar acting for the user.
constexpr uint32_t kSourceUser = 2;

xcb_connection_t* x11Connection() {
  const auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
  return x11 != nullptr ? x11->connection() : nullptr;
}

}  // namespace

void activateForUser(QWidget& window) {
  xcb_connection_t* connection = x11Connection();
  if (connection == nullptr) {
    return;
  }
  static constexpr char kName[] = "_NET_ACTIVE_WINDOW";
  const std::unique_ptr<xcb_intern_atom_reply_t, decltype(&std::free)> atom(
      xcb_intern_atom_reply(connection, xcb_intern_atom(connection, 1, std::strlen(kName), kName),
                            nullptr),
      &std::free);
  const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
  if (!atom || atom->atom == XCB_ATOM_NONE || screen == nullptr) {
    return;
  }
  xcb_client_message_event_t message{};
  message.response_type = XCB_CLIENT_MESSAGE;
  message.format = 32;
  message.window = static_cast<xcb_window_t>(window.winId());
  message.type = atom->atom;
  message.data.data32[0] = kSourceUser;
  message.data.data32[1] = XCB_CURRENT_TIME;
  xcb_send_event(connection, 0, screen->root,
                 XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                 reinterpret_cast<const char*>(&message));
  xcb_flush(connection);
}

std::optional<bool> holdsInputFocus(const QWidget& window) {
  xcb_connection_t* connection = x11Connection();
  if (connection == nullptr || !window.testAttribute(Qt::WA_WState_Created)) {
    return std::nullopt;
  }
  const std::unique_ptr<xcb_get_input_focus_reply_t, decltype(&std::free)> focus(
      xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr), &std::free);
  if (!focus) {
    return std::nullopt;
  }
  return focus->focus == static_cast<xcb_window_t>(window.winId());
}

}  // namespace quellix
