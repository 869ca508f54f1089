#pragma once

#include <sys/types.h>

namespace quellix {

using ResponsibilityFunction = pid_t (*)(pid_t);

// The system's "which process is responsible for this one" function, looked up among the
// symbols already loaded into the program on every call. Linux has none, so this is usually
// null; a program (or a test) that defines it gets it used.
ResponsibilityFunction lookupResponsibilityFunction();

}  // namespace quellix
