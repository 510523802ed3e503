// How long a read tries to gain a lock: the one policy of waiting for reads, deletes and whatever
// else finds objects through ObjectAccess. The flags of the read mode choose between no wait, a
// short and a long one; a wait that keeps to the order of locks may be extended.

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

  /// Whether another try is allowed as things stand. A quick wait counts it.
  [[nodiscard]] bool again();
  /// Whether the deadline may be moved on.
  [[nodiscard]] bool mayExtend() const { return !quick_ && count_ < kMaximumSteps; }
  /// Moves the deadline on by one step. If mayExtend().
  void extend();
  /// Gives the processor away before the next try.
  void rest();

 private:
  static constexpr std::uint32_t kMaximumSteps = 10;

  bool quick_;               ///< ReadNoWait: tries are counted, there is no deadline
  std::uint32_t step_;       ///< ms
  std::uint32_t deadline_;   ///< by platform::tickCount(), which wraps
  std::uint32_t count_ = 0;  ///< of quick tries, or of extensions
  std::uint32_t rests_ = 0;
};

}  // namespace zelta

#endif  // ZELTA_OBJECTS_READ_LOCK_WAIT_H
