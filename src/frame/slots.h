// The places that transactions have in the control file.
//
// Behind the table directory lie slots of 8 bytes: the number of a transaction and a state word of
// 1. An exclusive transaction has its place in the header, at kExclusiveWord, with the same two
// words. As long as a transaction lives, its process keeps a word locked, the owner's word: the
// second one of a slot, the first one of the exclusive place. So a number whose owner's word can be
// locked is that of a dead transaction. Slots are allocated, released and judged under
// databaseMutex.

#ifndef ZELTA_FRAME_SLOTS_H
#define ZELTA_FRAME_SLOTS_H

#include <cstdint>

#include "frame/control_file.h"

namespace zelta {

/// Numbers of transactions that have a slot begin here; what is below it in a slot names none.
inline constexpr std::uint32_t kFirstSlotNumber = 2;
/// The number of every exclusive transaction, and of whoever repairs.
inline constexpr std::uint32_t kExclusiveNumber = 1;

/// One place. It holds no lock and may be copied.
class Slot {
 public:
  static constexpr std::uint32_t kSize = 8;

  Slot() = default;
  Slot(platform::File controlFile, std::uint64_t position)
      : file_(controlFile), position_(position) {}
  /// The place of an exclusive transaction.
  static Slot exclusive(platform::File controlFile) { return {controlFile, kExclusiveWord}; }

  /// Position of the number in the control file; 0: no place.
  [[nodiscard]] std::uint64_t position() const { return position_; }
  [[nodiscard]] std::uint64_t end() const { return position_ + kSize; }
  [[nodiscard]] bool isNone() const { return position_ == 0; }
  [[nodiscard]] bool isExclusive() const { return position_ == kExclusiveWord; }

  [[nodiscard]] SystemCode readNumber(std::uint32_t* number) const;
  /// Enters a transaction of this number.
  [[nodiscard]] SystemCode enter(std::uint32_t number) const;
  /// Marks a slot as free.
  [[nodiscard]] SystemCode clear() const;
  /// Code 33: its owner lives.
  [[nodiscard]] SystemCode lockOwner() const;
  void unlockOwner() const;

 private:
  [[nodiscard]] std::uint64_t ownerWord() const {
    return isExclusive() ? kExclusiveWord : position_ + sizeof(std::uint32_t);
  }

  platform::File file_ = platform::File::none;
  std::uint64_t position_ = 0;
};

/// Goes over the slots from the end of the directory to the end of the file:
///
///   SlotWalk walk(metaData.controlFile);
///   ZELTA_TRY(reportControlFile(metaData, walk.begin(directoryEnd)));
///   while (walk.next()) look(walk.slot());
class SlotWalk {
 public:
  explicit SlotWalk(platform::File controlFile) : file_(controlFile) {}

  [[nodiscard]] SystemCode begin(std::uint64_t directoryEnd);
  [[nodiscard]] bool next();
  [[nodiscard]] const Slot& slot() const { return slot_; }
  /// Bytes of the file when the walk began.
  [[nodiscard]] std::uint64_t fileSize() const { return fileSize_; }

 private:
  platform::File file_;
  std::uint64_t position_ = 0;
  std::uint64_t fileSize_ = 0;
  Slot slot_;
};

}  // namespace zelta

#endif  // ZELTA_FRAME_SLOTS_H
