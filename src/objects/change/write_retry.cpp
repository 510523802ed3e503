#include "objects/change/write_retry.h"

#include <cassert>

#include "objects/upcalls.h"
#include "platform/clock.h"

namespace zelta {

namespace {

constexpr std::uint32_t kPause = 10;  // ms

}  // namespace

Result WriteRetry::repairDead() {
  assert(!access_.owned());
  clearError(metaData_);
  const Result result = clearDeadTransaction({metaData_, tables_}, 0);
  return result.isLocked() ? Result{} : result;
}

Result WriteRetry::countPass(std::uint64_t objectID) {
  if (++passes_ < limits_.passes) return {};
  return reportError(&metaData_, Own::objectLocked, access_.table.cName(), nullptr,
                     static_cast<std::int64_t>(objectID));
}

void WriteRetry::pause() const {
  assert(!access_.owned());
  platform::sleepMilliseconds(passes_ < limits_.quickPasses ? 0 : kPause);
}

}  // namespace zelta
