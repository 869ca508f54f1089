#pragma once

#include <QJsonDocument>
#include <QLocalSocket>
#include <QString>
#include <memory>
#include <optional>

namespace quellix {

// A client of sway's IPC socket (the i3 protocol, found through $SWAYSOCK). On sway a Wayland
// client cannot place its own windows; asking the compositor through this socket is the one
// way to put a floating window where it belongs.
class SwayIpc {
 public:
  // The session's sway, or none where sway does not run.
  static std::unique_ptr<SwayIpc> connectToSession();
  explicit SwayIpc(const QString& socketPath);

  bool isConnected() const;
  // Runs `command`; true when sway carried out every part of it.
  bool run(const QString& command);
  // sway's layout tree: outputs, workspaces and containers with their rectangles.
  std::optional<QJsonDocument> tree();

 private:
  enum class Message : quint32 { runCommand = 0, getTree = 4 };
  std::optional<QJsonDocument> request(Message type, const QByteArray& payload);

  QLocalSocket socket_;
};

}  // namespace quellix
