#pragma once

namespace quellix::SelfMover {

// Offers to copy a program started from a download or removable media into ~/Applications.
// True only when the copy succeeded and this process is about to quit.
bool offerMoveIfNeeded();

}  // namespace quellix::SelfMover
