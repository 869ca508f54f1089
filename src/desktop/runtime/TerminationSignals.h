#pragma once

namespace quellix {

// Turns SIGTERM and SIGINT into a normal quit of the Qt event loop, so that everything the
// program holds (preferences waiting to be written, taps) is ended as on a normal exit.
// Call once, after the QCoreApplication exists.
void quitOnTerminationSignals();

}  // namespace quellix
