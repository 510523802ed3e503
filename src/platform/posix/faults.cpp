#ifdef ZELTA_FAULTS

#include <signal.h>
#include <unistd.h>

#include "platform/fault_calls.h"

namespace zelta::platform {

void dieNow() {
  kill(getpid(), SIGKILL);
  for (;;) pause();
}

}  // namespace zelta::platform

#endif  // ZELTA_FAULTS
