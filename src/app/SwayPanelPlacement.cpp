#include "app/SwayPanelPlacement.h"

#include <unistd.h>

#include <QJsonArray>
#include <array>

namespace quellix {
namespace {

QRect rectOf(const QJsonValue& value) {
  const QJsonObject rect = value.toObject();
  return {rect.value(QStringLiteral("x")).toInt(), rect.value(QStringLiteral("y")).toInt(),
          rect.value(QStringLiteral("width")).toInt(),
          rect.value(QStringLiteral("height")).toInt()};
}

}  // namespace

std::unique_ptr<SwayPanelPlacement> SwayPanelPlacement::forSession() {
  auto ipc = SwayIpc::connectToSession();
  return ipc ? std::make_unique<SwayPanelPlacement>(std::move(ipc)) : nullptr;
}

SwayPanelPlacement::SwayPanelPlacement(std::unique_ptr<SwayIpc> ipc) : ipc_(std::move(ipc)) {}

QPoint SwayPanelPlacement::barAnchor(const QRect& output, const QRect& usable, QPoint pointer) {
  const std::array<int, 4> room = {usable.top() - output.top(), output.bottom() - usable.bottom(),
                                   usable.left() - output.left(), output.right() - usable.right()};
  const auto widest = std::max_element(room.begin(), room.end());
  if (*widest <= 0) {
    return pointer;  // no bar keeps space free: stay at the pointer
  }
  switch (widest - room.begin()) {
    case 0:
      return {pointer.x(), output.top() + room[0] / 2};
    case 1:
      return {pointer.x(), output.bottom() - room[1] / 2};
    case 2:
      return {output.left() + room[2] / 2, pointer.y()};
    default:
      return {output.right() - room[3] / 2, pointer.y()};
  }
}

std::optional<SwayPanelPlacement::Found> SwayPanelPlacement::find(const QString& title,
                                                                  const QSize& size) {
  const auto tree = ipc_->tree();
  if (!tree) {
    return std::nullopt;
  }
  const qint64 pid = ::getpid();
  std::optional<Found> found;
  // Walks the tree keeping the output and workspace each container lies on; a workspace's
  // rectangle is its output less the bars' exclusive zones.
  std::function<void(const QJsonObject&, QRect, QRect)> walk = [&](const QJsonObject& node,
                                                                   QRect output, QRect usable) {
    const QString type = node.value(QStringLiteral("type")).toString();
    if (type == QStringLiteral("output")) {
      output = rectOf(node.value(QStringLiteral("rect")));
    } else if (type == QStringLiteral("workspace")) {
      usable = rectOf(node.value(QStringLiteral("rect")));
    } else if (type == QStringLiteral("floating_con") &&
               node.value(QStringLiteral("pid")).toInteger() == pid &&
               node.value(QStringLiteral("name")).toString() == title &&
               rectOf(node.value(QStringLiteral("window_rect"))).size() == size) {
      found = Found{.conId = node.value(QStringLiteral("id")).toInteger(),
                    .rect = rectOf(node.value(QStringLiteral("rect"))),
                    .output = output,
                    .usable = usable};
    }
    for (const char* children : {"nodes", "floating_nodes"}) {
      for (const QJsonValue& child : node.value(QLatin1String(children)).toArray()) {
        walk(child.toObject(), output, usable);
      }
    }
  };
  walk(tree->object(), {}, {});
  return found;
}

std::optional<QPoint> SwayPanelPlacement::place(const QString& title, const QSize& size,
                                                const Placer& placer) {
  auto found = find(title, size);
  if (!found) {
    return std::nullopt;
  }
  const QString container = QStringLiteral("[con_id=%1] ").arg(found->conId);
  if (!pointer_) {
    // sway tells no client where the pointer is, but it centres a window on it on request
    // (kept on the output): the window's centre afterwards is the pointer's position.
    if (!ipc_->run(container + QStringLiteral("border none, move position cursor")) ||
        !(found = find(title, size))) {
      return std::nullopt;
    }
    pointer_ = found->rect.center();
  }
  const QPoint topLeft =
      placer(barAnchor(found->output, found->usable, *pointer_), found->usable, size);
  if (!ipc_->run(
          container +
          QStringLiteral("move absolute position %1 %2").arg(topLeft.x()).arg(topLeft.y()))) {
    return std::nullopt;
  }
  return topLeft;
}

}  // namespace quellix
