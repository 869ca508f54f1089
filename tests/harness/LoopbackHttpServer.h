#pragma once

#include <QTcpServer>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace quellix::testing {

// A tiny HTTP/1.1 server on 127.0.0.1 inside the test process, run by the test's Qt event
// loop: canned answers per path, or none at all.
class LoopbackHttpServer {
 public:
  LoopbackHttpServer();

  // Every later request for `path` gets this answer and the connection is closed.
  void respond(const std::string& path, int status, const std::string& contentType,
               const std::string& body);
  // Requests for `path` are read and never answered.
  void stayQuiet(const std::string& path);

  std::string url(const std::string& path) const;
  // The request heads received so far, as sent.
  const std::vector<std::string>& requests() const { return requests_; }

  // A port on which nothing listens: connecting to it is refused.
  static std::uint16_t closedPort();

 private:
  struct Answer {
    int status = 0;
    std::string contentType;
    std::string body;
  };

  void serve(class QTcpSocket* socket, const std::string& head);

  QTcpServer server_;
  std::map<std::string, std::optional<Answer>> answers_;
  std::vector<std::string> requests_;
};

}  // namespace quellix::testing
