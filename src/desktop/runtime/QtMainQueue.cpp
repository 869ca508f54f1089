#include "desktop/runtime/QtMainQueue.h"

#include <QEventLoop>
#include <QMetaObject>
#include <QTimer>

#include <algorithm>
#include <cstdint>

namespace quellix {
namespace {

int toMilliseconds(Duration duration) {
  const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(duration).count();
  return static_cast<int>(std::clamp<long long>(milliseconds, 0, INT32_MAX));
}

}  // namespace

QtMainQueue::QtMainQueue() = default;
QtMainQueue::~QtMainQueue() = default;

void QtMainQueue::post(std::function<void()> work) {
  // Queued invocation is thread-safe and runs on the context's (main) thread.
  QMetaObject::invokeMethod(&context_, std::move(work), Qt::QueuedConnection);
}

TaskHandle QtMainQueue::schedule(Duration delay, std::optional<Duration> repeatEvery,
                                 std::function<void()> work) {
  TaskHandle handle(std::make_shared<std::atomic<bool>>(false));
  auto* timer = new QTimer(&context_);
  timer->setTimerType(Qt::PreciseTimer);
  timer->setSingleShot(true);
  timer->setInterval(toMilliseconds(delay));
  QObject::connect(timer, &QTimer::timeout, &context_,
                   [timer, handle, repeatEvery, work = std::move(work)] {
                     if (handle.isCancelled()) {
                       timer->deleteLater();
                       return;
                     }
                     work();
                     if (repeatEvery && !handle.isCancelled()) {
                       timer->start(toMilliseconds(*repeatEvery));
                     } else {
                       timer->deleteLater();
                     }
                   });
  timer->start();
  return handle;
}

TimePoint QtMainQueue::now() const {
  return std::chrono::steady_clock::now();
}

void QtMainQueue::runFor(Duration duration) {
  QEventLoop loop;
  QTimer::singleShot(toMilliseconds(duration), Qt::PreciseTimer, &loop, &QEventLoop::quit);
  loop.exec();
}

}  // namespace quellix
