#include "support/MainQueue.h"

namespace quellix {

void TaskHandle::cancel() const {
  if (cancelled_) {
    cancelled_->store(true, std::memory_order_relaxed);
  }
}

bool TaskHandle::isCancelled() const {
  return cancelled_ && cancelled_->load(std::memory_order_relaxed);
}

}  // namespace quellix
