#include "objects/read/lock_wait.h"

#include <cassert>

#include "platform/clock.h"
#include "platform/deadline.h"

namespace zelta {

namespace {
constexpr std::uint32_t kQuickTries = 5;
constexpr std::uint32_t kLongStep = 1000;
constexpr std::uint32_t kShortStep = 100;
/// Tries that only yield the processor; later ones sleep, so that a long wait does not keep the
/// lock's owner from running.
constexpr std::uint32_t kYields = 64;
}  // namespace

LockWait::LockWait(CZELTA::Mode flags)
    : quick_((flags & CZELTA::ReadNoWait) != 0),
      step_((flags & CZELTA::ReadShortWait) != 0 ? kShortStep : kLongStep),
      deadline_(platform::tickCount() + step_) {}

bool LockWait::again() {
  if (quick_) return count_++ < kQuickTries;
  return !platform::deadlinePassed(platform::tickCount(), deadline_);
}

void LockWait::extend() {
  assert(mayExtend());
  deadline_ += step_;
  ++count_;
}

void LockWait::rest() {
  if (quick_) return;
  platform::sleepMilliseconds(rests_ < kYields ? 0 : 1);
  ++rests_;
}

}  // namespace zelta
