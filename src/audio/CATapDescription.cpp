#include "audio/AudioHardware.h"

CATapDescription CATapDescription::stereoMixdownOfProcesses(std::vector<AudioObjectID> processes) {
  CATapDescription description;
  description.processes_ = std::move(processes);
  description.mixdown_ = true;
  description.mono_ = false;
  return description;
}
