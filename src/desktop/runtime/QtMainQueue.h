#pragma once

#include <QObject>

#include "support/MainQueue.h"

namespace quellix {

// The program's main queue on Qt's event loop. Construct it on the main thread after the
// QCoreApplication.
class QtMainQueue final : public MainQueue {
 public:
  QtMainQueue();
  ~QtMainQueue() override;

  void post(std::function<void()> work) override;
  TaskHandle schedule(Duration delay, std::optional<Duration> repeatEvery,
                      std::function<void()> work) override;
  TimePoint now() const override;
  void runFor(Duration duration) override;

 private:
  QObject context_;
};

}  // namespace quellix
