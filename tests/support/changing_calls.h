// Which calls of the platform layer change files.

#ifndef ZELTA_TESTS_SUPPORT_CHANGING_CALLS_H
#define ZELTA_TESTS_SUPPORT_CHANGING_CALLS_H

#include "platform/faults.h"

namespace zelta::testing {

inline bool changesFiles(platform::faults::Call call) {
  using platform::faults::Call;
  return call == Call::write || call == Call::truncate || call == Call::flush ||
         call == Call::remove || call == Call::rename;
}

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SUPPORT_CHANGING_CALLS_H
