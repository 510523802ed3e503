#include "platform/deadline.h"

namespace zelta::platform {

std::uint32_t timeLeft(std::uint32_t now, std::uint32_t deadline) {
  constexpr std::uint32_t kTop = 0xC0000000;
  if ((now & kTop) == kTop && deadline < 0x40000000) {
    now &= ~kTop;
    deadline |= 0x40000000;
  }
  const auto left = static_cast<std::int32_t>(deadline - now);
  return left < 0 ? 0 : static_cast<std::uint32_t>(left);
}

bool deadlinePassed(std::uint32_t now, std::uint32_t deadline) {
  constexpr std::uint32_t kTop = 0xC0000000;
  if (now == deadline) return true;
  if ((now & kTop) == kTop && (deadline & kTop) == 0) return false;
  if ((now & kTop) == 0 && (deadline & kTop) == kTop) return true;
  return now > deadline;
}

}  // namespace zelta::platform
