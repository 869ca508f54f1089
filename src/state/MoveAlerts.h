#pragma once

namespace quellix {

// The two questions the move into ~/Applications asks the user; both block until answered.
class MoveAlerts {
 public:
  virtual ~MoveAlerts() = default;

  // Whether the user chose to move and restart the program.
  virtual bool offer() = 0;
  // Tells the user the move failed and they should do it by hand.
  virtual void showFailure() = 0;
};

}  // namespace quellix
