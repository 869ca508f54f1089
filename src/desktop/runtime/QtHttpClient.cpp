#include <QMetaObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>

#include <algorithm>
#include <climits>

#include "desktop/runtime/HttpClient.h"

namespace quellix {
namespace {

constexpr const char* kTimedOut = "The request timed out.";

int toMilliseconds(Duration duration) {
  const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(duration).count();
  return static_cast<int>(std::clamp<long long>(milliseconds, 1, INT_MAX));
}

QUrl strictUrl(const std::string& text) {
  return QUrl(QString::fromStdString(text), QUrl::StrictMode);
}

// Errors Qt derives from the status code of a response that did arrive: its body is still the
// answer, whatever it says.
bool isStatusError(QNetworkReply::NetworkError error) {
  return (error >= QNetworkReply::ContentAccessDenied &&
          error <= QNetworkReply::UnknownContentError) ||
         error == QNetworkReply::ProtocolInvalidOperationError ||
         (error >= QNetworkReply::InternalServerError &&
          error <= QNetworkReply::UnknownServerError);
}

HttpClient::Reply replyOf(QNetworkReply& reply) {
  const auto error = reply.error();
  const bool answered = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid();
  if (error == QNetworkReply::NoError || (answered && isStatusError(error))) {
    const QByteArray body = reply.readAll();
    return {.body = std::string(body.constData(), static_cast<std::size_t>(body.size()))};
  }
  // Nothing aborts our replies but the transfer time-out, which Qt reports as a cancellation.
  if (error == QNetworkReply::OperationCanceledError || error == QNetworkReply::TimeoutError) {
    return {.errorDescription = kTimedOut};
  }
  return {.errorDescription = reply.errorString().toStdString()};
}

class QtHttpClient final : public HttpClient {
 public:
  void get(const std::string& url, Duration timeout, std::function<void(Reply)> done) override {
    if (!manager_) {
      manager_ = std::make_unique<QNetworkAccessManager>();
    }
    if (!isWebAddress(url)) {
      // Even a refusal arrives later, as every reply does.
      QMetaObject::invokeMethod(
          manager_.get(),
          [url, done = std::move(done)] { done({.errorDescription = "Invalid address: " + url}); },
          Qt::QueuedConnection);
      return;
    }
    QNetworkRequest request(strictUrl(url));
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         QNetworkRequest::AlwaysNetwork);
    request.setTransferTimeout(toMilliseconds(timeout));
    QNetworkReply* reply = manager_->get(request);
    QObject::connect(reply, &QNetworkReply::finished, reply, [reply, done = std::move(done)] {
      reply->deleteLater();
      done(replyOf(*reply));
    });
  }

 private:
  std::unique_ptr<QNetworkAccessManager> manager_;
};

}  // namespace

std::shared_ptr<HttpClient> makeQtHttpClient() {
  return std::make_shared<QtHttpClient>();
}

bool isWebAddress(const std::string& text) {
  const QUrl url = strictUrl(text);
  return url.isValid() && !url.scheme().isEmpty() && !url.host().isEmpty();
}

}  // namespace quellix
