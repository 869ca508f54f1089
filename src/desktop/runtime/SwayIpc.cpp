#include "desktop/runtime/SwayIpc.h"

#include <QJsonArray>
#include <QJsonObject>
#include <cstring>

namespace quellix {
namespace {

constexpr char kMagic[] = "i3-ipc";
constexpr qsizetype kMagicSize = sizeof(kMagic) - 1;
constexpr qsizetype kHeaderSize = kMagicSize + 2 * sizeof(quint32);
// sway answers from its own event loop; a compositor this slow is as good as absent.
constexpr int kAnswerTimeoutMs = 500;

}  // namespace

std::unique_ptr<SwayIpc> SwayIpc::connectToSession() {
  const QString path = qEnvironmentVariable("SWAYSOCK");
  if (path.isEmpty()) {
    return nullptr;
  }
  auto ipc = std::make_unique<SwayIpc>(path);
  return ipc->isConnected() ? std::move(ipc) : nullptr;
}

SwayIpc::SwayIpc(const QString& socketPath) {
  socket_.connectToServer(socketPath);
  socket_.waitForConnected(kAnswerTimeoutMs);
}

bool SwayIpc::isConnected() const {
  return socket_.state() == QLocalSocket::ConnectedState;
}

bool SwayIpc::run(const QString& command) {
  const auto answer = request(Message::runCommand, command.toUtf8());
  if (!answer || !answer->isArray() || answer->array().isEmpty()) {
    return false;
  }
  for (const QJsonValue& result : answer->array()) {
    if (!result.toObject().value(QStringLiteral("success")).toBool()) {
      return false;
    }
  }
  return true;
}

std::optional<QJsonDocument> SwayIpc::tree() {
  return request(Message::getTree, {});
}

std::optional<QJsonDocument> SwayIpc::request(Message type, const QByteArray& payload) {
  if (!isConnected()) {
    return std::nullopt;
  }
  // The protocol's integers are in the machine's own byte order.
  QByteArray message(kMagic, kMagicSize);
  const quint32 header[] = {static_cast<quint32>(payload.size()), static_cast<quint32>(type)};
  message.append(reinterpret_cast<const char*>(header), sizeof(header));
  message.append(payload);
  socket_.write(message);
  socket_.flush();

  QByteArray answer;
  qsizetype expected = kHeaderSize;
  while (answer.size() < expected) {
    if (socket_.bytesAvailable() == 0 && !socket_.waitForReadyRead(kAnswerTimeoutMs)) {
      socket_.abort();
      return std::nullopt;
    }
    answer.append(socket_.read(expected - answer.size()));
    if (answer.size() == kHeaderSize && expected == kHeaderSize) {
      if (!answer.startsWith(kMagic)) {
        socket_.abort();
        return std::nullopt;
      }
      quint32 length = 0;
      std::memcpy(&length, answer.constData() + kMagicSize, sizeof(length));
      expected += length;
    }
  }
  QJsonParseError error{};
  auto document = QJsonDocument::fromJson(answer.mid(kHeaderSize), &error);
  if (error.error != QJsonParseError::NoError) {
    return std::nullopt;
  }
  return document;
}

}  // namespace quellix
