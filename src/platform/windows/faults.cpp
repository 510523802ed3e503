#ifdef ZELTA_FAULTS

#include "platform/windows/windows_internal.h"

namespace zelta::platform {

void dieNow() {
  constexpr UINT kKilled = 256 + 9;  // what tests see of a killed process elsewhere
  TerminateProcess(GetCurrentProcess(), kKilled);
  for (;;) Sleep(INFINITE);
}

}  // namespace zelta::platform

#endif  // ZELTA_FAULTS
