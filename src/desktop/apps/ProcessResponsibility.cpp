#include "desktop/apps/ProcessResponsibility.h"

#include <dlfcn.h>

namespace quellix {

ResponsibilityFunction lookupResponsibilityFunction() {
  void* program = ::dlopen(nullptr, RTLD_NOW);
  if (program == nullptr) {
    return nullptr;
  }
  void* symbol = ::dlsym(program, "responsibility_get_pid_responsible_for_pid");
  ::dlclose(program);
  return reinterpret_cast<ResponsibilityFunction>(symbol);
}

}  // namespace quellix
