#include "app/X11Activation.h"

#include <xcb/xcb.h>

#include <QGuiApplication>
#include <QWidget>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

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

std::unique_ptr<X11FocusFollower> X11FocusFollower::forWindow(
    const QWidget& window, std::function<void(bool focused)> changed) {
  if (x11Connection() == nullptr) {
    return nullptr;
  }
  return std::unique_ptr<X11FocusFollower>(new X11FocusFollower(window, std::move(changed)));
}

X11FocusFollower::X11FocusFollower(const QWidget& window, std::function<void(bool focused)> changed)
    : window_(window), changed_(std::move(changed)) {
  qGuiApp->installNativeEventFilter(this);
}

X11FocusFollower::~X11FocusFollower() {
  qGuiApp->removeNativeEventFilter(this);
}

bool X11FocusFollower::nativeEventFilter(const QByteArray& eventType, void* message, qintptr*) {
  if (eventType != "xcb_generic_event_t") {
    return false;
  }
  const auto* event = static_cast<const xcb_generic_event_t*>(message);
  const auto type = event->response_type & ~0x80;
  if (type != XCB_FOCUS_IN && type != XCB_FOCUS_OUT) {
    return false;
  }
  // Focus-in and focus-out share one layout.
  const auto* focus = reinterpret_cast<const xcb_focus_in_event_t*>(event);
  // The window's id changes when Qt recreates it; one not created yet has none.
  const WId current = window_.internalWinId();
  if (current == 0 || focus->event != static_cast<xcb_window_t>(current) ||
      focus->detail == XCB_NOTIFY_DETAIL_POINTER) {
    return false;  // the pointer over the window while the focus is elsewhere: no news
  }
  changed_(type == XCB_FOCUS_IN);
  return false;  // Qt follows the focus as well
}

}  // namespace quellix
