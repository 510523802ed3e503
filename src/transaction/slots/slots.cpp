#include "transaction/slots/slots.h"

#include <cassert>
#include <utility>

#include "frame/mutex_guard.h"
#include "platform/file_io.h"

namespace zelta {

namespace {

/// A free slot on whose owner's word a scan may have a lock, until it is kept.
class FreeSlot {
 public:
  explicit FreeSlot(bool lock) : lock_(lock) {}
  ~FreeSlot() { drop(); }
  FreeSlot(const FreeSlot&) = delete;
  FreeSlot& operator=(const FreeSlot&) = delete;

  [[nodiscard]] bool found() const { return !slot_.isNone(); }
  /// Takes a slot over whose owner's word was just locked.
  void take(const Slot& slot) {
    assert(!found());
    slot_ = slot;
    if (!lock_) slot.unlockOwner();
  }
  void drop() {
    if (found() && lock_) slot_.unlockOwner();
    slot_ = {};
  }
  Slot keep() { return std::exchange(slot_, Slot()); }

 private:
  bool lock_;
  Slot slot_;
};

}  // namespace

/// Each slot is judged by trying to lock its owner's word; what could be locked is unlocked again,
/// but for the one that is taken and that of a dead transaction.
Result scanSlots(MetaData& metaData, const ControlHeader_tag& header, bool take, SlotScan& out) {
  out = {};
  FreeSlot free(take);
  SlotWalk walk(metaData.controlFile);
  ZELTA_TRY(reportControlFile(metaData, walk.begin(header.directoryEnd)));
  Slot end(metaData.controlFile, header.directoryEnd);  // what lies behind all slots
  std::uint64_t liveEnd = header.directoryEnd;
  while (walk.next()) {
    const Slot& slot = walk.slot();
    end = Slot(metaData.controlFile, slot.end());
    const SystemCode locked = slot.lockOwner();
    if (locked == code::kLockViolation) {
      ++out.liveCount;
      liveEnd = slot.end();
      continue;
    }
    ZELTA_TRY(reportControlFile(metaData, locked));
    std::uint32_t number = 0;
    if (const SystemCode failure = slot.readNumber(&number); failure != 0) {
      slot.unlockOwner();
      return reportControlFile(metaData, failure);
    }
    if (number >= kFirstSlotNumber) {
      out.slot = slot;
      out.deadNumber = number;
      return {};
    }
    if (free.found()) {
      slot.unlockOwner();
    } else {
      free.take(slot);
    }
  }
  if (walk.fileSize() < header.directoryEnd) {
    return reportError(&metaData, Own::controlFile, metaData.baseName.c_str(), extension::kControl);
  }
  if (walk.fileSize() != liveEnd) {
    ZELTA_TRY(reportControlFile(metaData, truncateFile(metaData.controlFile, liveEnd)));
  }
  if (!free.found()) {
    if (take) ZELTA_TRY(reportControlFile(metaData, end.lockOwner()));
    out.slot = end;
    return {};
  }
  out.slot = free.keep();
  return {};
}

Result lockDeadTransaction(MetaData& metaData, std::uint32_t number, Slot& slot,
                           std::uint32_t* found) {
  slot = {};
  *found = 0;
  if (number == kExclusiveNumber) {
    const Slot exclusive = Slot::exclusive(metaData.controlFile);
    const SystemCode failure = exclusive.lockOwner();
    if (failure == code::kLockViolation) return Result::locked();
    if (failure != 0) return reportControlFile(metaData, failure);
    slot = exclusive;
    *found = kExclusiveNumber;
    return {};
  }
  // An exclusive transaction is alone, and where slots were when it began, a table may be by now.
  if (metaData.slotPosition == kExclusiveWord) return {};
  SlotWalk walk(metaData.controlFile);
  ZELTA_TRY(reportControlFile(metaData, walk.begin(metaData.slotAreaStart)));
  while (walk.next()) {
    std::uint32_t owner = 0;
    ZELTA_TRY(reportControlFile(metaData, walk.slot().readNumber(&owner)));
    if (owner < kFirstSlotNumber || (number != 0 && owner != number)) continue;
    const SystemCode failure = walk.slot().lockOwner();
    if (failure == code::kLockViolation) {
      if (number != 0) return Result::locked();
      continue;
    }
    if (failure != 0) return reportControlFile(metaData, failure);
    slot = walk.slot();
    *found = owner;
    return {};
  }
  return {};
}

namespace {

/// Cuts the control file behind the last slot in use before `position`.
Result cutSlots(MetaData& metaData, std::uint64_t position) {
  std::uint64_t cut = position;
  while (cut >= metaData.slotAreaStart + std::uint64_t{Slot::kSize}) {
    std::uint32_t number = 0;
    const Slot slot(metaData.controlFile, cut - Slot::kSize);
    const SystemCode failure = slot.readNumber(&number);
    if (failure == code::kLockViolation || (failure == 0 && number != 0)) break;
    if (failure != 0) return reportControlFile(metaData, failure);
    cut = slot.position();
  }
  if (cut < kControlHeaderSize) {
    return reportError(&metaData, Own::context, nullptr, nullptr, static_cast<std::int64_t>(cut),
                       kControlHeaderSize);
  }
  return reportControlFile(metaData, truncateFile(metaData.controlFile, cut));
}

/// The exclusive place has no end to be cut off.
Result releaseExclusive(MetaData& metaData, const Slot& slot) {
  constexpr std::uint32_t kIdle = 0;
  const SystemCode failure = writeBuffer(
      metaData.controlFile, offsetof(ControlHeader_tag, exclusiveState), &kIdle, sizeof kIdle);
  slot.unlockOwner();
  return reportControlFile(metaData, failure);
}

}  // namespace

Result releaseSlot(MetaData& metaData, const Slot& slot) {
  if (slot.isNone()) return {};
  if (slot.isExclusive()) return releaseExclusive(metaData, slot);
  MutexGuard guard;
  const Result waited = guard.acquire(metaData, metaData.databaseMutex, kLongWait);
  slot.unlockOwner();  // else it would look alive until we close
  ZELTA_TRY(waited);
  std::uint64_t size = 0;
  if (const SystemCode failure = platform::fileSize(metaData.controlFile, &size); failure != 0) {
    return reportControlFile(metaData, failure);
  }
  if (slot.end() >= size) {
    ZELTA_TRY(cutSlots(metaData, slot.position()));
  } else {
    ZELTA_TRY(reportControlFile(metaData, slot.clear()));
  }
  return reportControlFile(metaData, guard.release());
}

}  // namespace zelta
