// How long a read tries to gain a lock.

#ifndef ZELTA_OBJECTS_READ_LOCK_WAIT_H
#define ZELTA_OBJECTS_READ_LOCK_WAIT_H

#include <cstdint>

#include "czelta.h"

namespace zelta {

/// Counts the tries of a read: a few quick ones, or tries up to a deadline, which can be moved on a
/// number of times.
class LockWait {
 public:
  explicit LockWait(CZELTA::Mode flags);

  /// Whether another try is allowed as things stand.
  [[nodiscard]] bool again();
  /// Whether the deadline may be moved on.
  [[nodiscard]] bool mayExtend() const { return !quick_ && count_ < kMaximumSteps; }
  void extend();
  /// Gives the processor away before the next try.
  void rest();

 private:
  static constexpr std::uint32_t kMaximumSteps = 10;

  bool quick_;
  std::uint32_t step_;
  std::uint32_t deadline_;
  std::uint32_t count_ = 0;
  std::uint32_t rests_ = 0;
};

}  // namespace zelta

#endif  // ZELTA_OBJECTS_READ_LOCK_WAIT_H
