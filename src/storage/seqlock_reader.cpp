#include "storage/seqlock_reader.h"

#include "platform/clock.h"

namespace zelta {

namespace {

constexpr std::uint32_t kMaximumRounds = 250;
/// Rounds that only yield the processor; later ones sleep.
constexpr std::uint32_t kQuickRounds = 10;
constexpr std::uint32_t kPause = 2;  // ms

}  // namespace

bool SeqlockReader::retry() {
  if (rounds_ < kMaximumRounds) {
    platform::sleepMilliseconds(rounds_++ < kQuickRounds ? 0 : kPause);
    return true;
  }
  if (!validating_) return false;
  validating_ = false;
  table_.ignoredChange = isOdd(sequence_) ? sequence_ : 0;
  return true;
}

}  // namespace zelta
