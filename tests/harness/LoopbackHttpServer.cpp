#include "harness/LoopbackHttpServer.h"

#include <QTcpSocket>

#include <stdexcept>

namespace quellix::testing {

LoopbackHttpServer::LoopbackHttpServer() {
  if (!server_.listen(QHostAddress::LocalHost)) {
    throw std::runtime_error("the test server cannot listen on 127.0.0.1");
  }
  QObject::connect(&server_, &QTcpServer::newConnection, &server_, [this] {
    while (QTcpSocket* socket = server_.nextPendingConnection()) {
      // The socket is the server's child and dies with it, answered or not.
      auto received = std::make_shared<std::string>();
      QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket, received] {
        const QByteArray data = socket->readAll();
        received->append(data.constData(), static_cast<std::size_t>(data.size()));
        if (const auto end = received->find("\r\n\r\n"); end != std::string::npos) {
          const std::string head = received->substr(0, end);
          received->clear();
          serve(socket, head);
        }
      });
    }
  });
}

void LoopbackHttpServer::respond(const std::string& path, int status,
                                 const std::string& contentType, const std::string& body) {
  answers_[path] = Answer{status, contentType, body};
}

void LoopbackHttpServer::stayQuiet(const std::string& path) {
  answers_[path] = std::nullopt;
}

std::string LoopbackHttpServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(server_.serverPort()) + path;
}

std::uint16_t LoopbackHttpServer::closedPort() {
  QTcpServer probe;
  probe.listen(QHostAddress::LocalHost);
  const std::uint16_t port = probe.serverPort();
  probe.close();
  return port;
}

void LoopbackHttpServer::serve(QTcpSocket* socket, const std::string& head) {
  requests_.push_back(head);
  // "GET /path HTTP/1.1"
  const auto pathStart = head.find(' ') + 1;
  const std::string path = head.substr(pathStart, head.find(' ', pathStart) - pathStart);
  const auto found = answers_.find(path);
  const std::optional<Answer> answer =
      found != answers_.end() ? found->second : Answer{404, "text/plain", "no such path"};
  if (!answer) {
    return;
  }
  const std::string response = "HTTP/1.1 " + std::to_string(answer->status) + " Canned\r\n" +
                               "Content-Type: " + answer->contentType + "\r\n" +
                               "Content-Length: " + std::to_string(answer->body.size()) + "\r\n" +
                               "Connection: close\r\n\r\n" + answer->body;
  socket->write(response.data(), static_cast<qint64>(response.size()));
  socket->disconnectFromHost();
}

}  // namespace quellix::testing
