#include "storage/seqlock_reader.h"

#include "platform/clock.h"

namespace zelta {

namespace {

constexpr std::uint32_t kMaximumRounds = 250;
/// Rounds beside writers that live: they go on, and a section must fall between two of theirs.
constexpr std::uint32_t kMostRounds = 2500;
/// Rounds that only yield the processor; later ones sleep.
constexpr std::uint32_t kQuickRounds = 10;
constexpr std::uint32_t kPause = 2;  // ms

}  // namespace

bool SeqlockReader::retry() {
  if (rounds_ < (isOdd(sequence_) ? kMaximumRounds : kMostRounds)) {
    platform::sleepMilliseconds(rounds_++ < kQuickRounds ? 0 : kPause);
    return true;
  }
  if (!validating_ || !isOdd(sequence_)) return false;
  validating_ = false;
  table_.ignoredChange = sequence_;
  return true;
}

}  // namespace zelta
