// The table file: slots, list of free IDs, records, free blocks; and the keys of the objects.

#include <algorithm>

#include "check/check_table.h"

namespace zelta::check {

namespace {

constexpr std::uint64_t kFreeBit = std::uint64_t{1} << 63;
constexpr std::uint32_t kFreeMarker = 0xFFFFFFFF;
constexpr std::uint16_t kPlaceholder = 0xFFFF;
constexpr std::uint64_t kBlockHead = 8;
/// Size, length, tail.
constexpr std::uint64_t kFraming = 12;
constexpr std::uint64_t kLeastBlock = 20;

}  // namespace

void TableCheck::checkObjects() {
  recordsComplete_ = facts_.fixed() ? walkFixed() : walkVariable();
  checkSlots();
  takeNewKeys();
}

// -- Records ----------------------------------------------------------------------------------

/// Records lie side by side: each place is one.
bool TableCheck::walkFixed() {
  const std::uint64_t size = facts_.fixedAreaSize;
  if (facts_.freeHead != 0) findings_.damage(file_, 56, "free space in a table without any");
  if ((facts_.end - facts_.areaStart) % size != 0) {
    findings_.damage(file_, 64, "object area holds no whole number of records");
    return false;
  }
  for (std::uint64_t at = facts_.areaStart; at < facts_.end && !findings_.full(); at += size) {
    records_.push_back(at);
    checkRecord(at, at, size);
  }
  return true;
}

/// Blocks must fill the area; free ones must be those of the chain, and joined with their
/// neighbours.
bool TableCheck::walkVariable() {
  nextFree_ = facts_.freeHead;
  nextFreeOffset_ = 56;
  bool freeBefore = false;
  for (std::uint64_t at = facts_.areaStart; at < facts_.end;) {
    if (findings_.full()) return false;
    std::uint64_t size = 0;
    if (!walkBlock(at, &size)) return false;
    const bool isFree = file_.number<std::uint32_t>(at + 4) == kFreeMarker;
    if (isFree && freeBefore) {
      findings_.damage(file_, at, "free block was not joined with the one before");
    }
    if (isFree && at + size == facts_.end) {
      findings_.damage(file_, at, "free block at the end of the file was not given up");
    }
    freeBefore = isFree;
    at += size;
  }
  if (nextFree_ != 0) {
    findings_.damage(file_, nextFreeOffset_, "no free block at " + text(nextFree_));
  }
  return true;
}

/// False if the walk cannot go on behind this block.
bool TableCheck::walkBlock(std::uint64_t position, std::uint64_t* size) {
  const std::uint64_t left = facts_.end - position;
  const char* head = left < kLeastBlock ? nullptr : file_.view(position, kBlockHead);
  if (head == nullptr) {
    findings_.damage(file_, position, "no room for another block");
    return false;
  }
  *size = load<std::uint32_t>(head, 0);
  const auto length = load<std::uint32_t>(head, 4);
  if (*size < kLeastBlock || *size > left) {
    findings_.damage(file_, position, "block of impossible size " + text(*size));
    return false;
  }
  if (file_.number<std::uint32_t>(position + *size - 4) != *size) {
    findings_.damage(file_, position + *size - 4, "size behind the block is not that in front");
  }
  if (length == kFreeMarker) {
    walkFree(position);
    return true;
  }
  records_.push_back(position);
  if (length + kFraming > *size) {
    findings_.damage(file_, position + 4, "object of " + text(length) + " bytes passes its block");
  } else {
    checkRecord(position, position + kBlockHead, length);
  }
  return true;
}

/// The chain must lead from free block to free block.
void TableCheck::walkFree(std::uint64_t position) {
  if (position != nextFree_) {
    findings_.damage(
        file_, nextFreeOffset_,
        "chain leads to " + text(nextFree_) + ", the next free block is " + text(position));
  }
  nextFree_ = file_.number<std::uint64_t>(position + 8);
  nextFreeOffset_ = position + 8;
}

/// A record must have an ID whose slot leads back to it, and an object that parses; its keys are
/// noted.
void TableCheck::checkRecord(std::uint64_t position, std::uint64_t objectOffset,
                             std::uint64_t length) {
  // A placeholder has no length, but version and ID behind it.
  const auto version = file_.number<std::uint16_t>(objectOffset);
  const bool placeholder = version == kPlaceholder && (length == 0 || length >= facts_.headerSize);
  if (length < facts_.headerSize && !placeholder) {
    return findings_.damage(file_, objectOffset - 4, "object without version");
  }
  if (version == 0) findings_.damage(file_, objectOffset, "object was never stored: version 0");
  std::uint64_t id = 0;
  const char* bytes = file_.view(objectOffset + 2, facts_.headerSize - 2);
  if (bytes == nullptr) return findings_.damage(file_, objectOffset, "object cannot be read");
  std::memcpy(&id, bytes, facts_.headerSize - 2);
  if (id == 0 || id > facts_.highestID) {
    return findings_.damage(file_, objectOffset + 2, "object of impossible ID " + text(id));
  }
  if (slots_.number<std::uint64_t>(facts_.slot(id)) != position) {
    return findings_.damage(file_, objectOffset + 2,
                            "slot of object " + text(id) + " does not lead to its record");
  }
  ++findings_.counts.objects;
  if (placeholder) return checkPlaceholder(id, objectOffset);
  const char* object = file_.view(objectOffset, length);
  if (object == nullptr) return findings_.damage(file_, objectOffset, "object cannot be read");
  const ObjectForm form{table_.schema, facts_.headerSize, facts_.fixedAreaSize};
  if (const auto fault = findFault(form, object, length)) {
    return findings_.damage(file_, objectOffset + fault->offset,
                            "object " + text(id) + ": " + fault->what);
  }
  takeKeys(id, position, object, static_cast<std::uint32_t>(length));
}

/// The index file was changed before the table file: it has the keys of what is to come.
void TableCheck::checkPlaceholder(std::uint64_t id, std::uint64_t objectOffset) {
  const PendingCommit* commit = commitOf(id);
  if (commit == nullptr || commit->images.count(id) == 0) {
    return findings_.damage(file_, objectOffset,
                            "content of object " + text(id) + " is in no entry of the log");
  }
  findings_.pending(file_, objectOffset, "content is still to come from the log");
  takeImageKeys(*commit, id, objectOffset);
}

// -- Slots ------------------------------------------------------------------------------------

/// Slots of all IDs up to the highest one, and zeros behind them.
void TableCheck::checkSlots() {
  nextFree_ = facts_.firstDeletedID;
  nextFreeOffset_ = 40;
  for (std::uint64_t id = 1; id <= facts_.highestID && !findings_.full(); ++id) {
    const std::uint64_t at = facts_.slot(id);
    const auto word = slots_.number<std::uint64_t>(at);
    const auto stamp = slots_.number<std::uint32_t>(at + 8);
    if ((word & kFreeBit) != 0) {
      checkFreeSlot(id, word);
      if (stamp != 0) findings_.damage(file_, at + 8, "mark of a transaction in a free slot");
    } else {
      checkUsedSlot(id, word);
      if (stamp != 0) {
        findings_.remains(file_, at + 8,
                          "object " + text(id) + " has a mark of transaction " + text(stamp));
      }
    }
  }
  if (findings_.full()) return;
  if (nextFree_ != 0) {
    findings_.damage(file_, nextFreeOffset_,
                     "list of free IDs leads to " + text(nextFree_) + ", which is not free");
  }
  const std::uint64_t from = facts_.slot(facts_.highestID + 1);
  if (const std::uint64_t used = file_.firstNonzero(from, facts_.areaStart);
      used != facts_.areaStart) {
    findings_.damage(file_, used, "slot above the highest ID is not zero");
  }
}

/// The list holds all free IDs, ascending: each link is the next free ID.
void TableCheck::checkFreeSlot(std::uint64_t id, std::uint64_t word) {
  if (id == facts_.highestID) {
    findings_.damage(file_, facts_.slot(id), "the highest ID is free");
  }
  if (id != nextFree_) {
    findings_.damage(
        file_, nextFreeOffset_,
        "list of free IDs leads to " + text(nextFree_) + ", the next free ID is " + text(id));
  }
  nextFree_ = word & ~kFreeBit;
  nextFreeOffset_ = facts_.slot(id);
}

/// A slot in use must lead to a record of its ID.
void TableCheck::checkUsedSlot(std::uint64_t id, std::uint64_t position) {
  const std::uint64_t at = facts_.slot(id);
  if (position < facts_.areaStart || position >= facts_.end) {
    findings_.damage(
        file_, at,
        "slot " + text(id) + " leads to " + text(position) + ", outside of the object area");
    return;
  }
  const auto found = std::lower_bound(records_.begin(), records_.end(), position);
  if (found == records_.end() || *found != position) {
    if (recordsComplete_) {
      findings_.damage(file_, at, "slot " + text(id) + " leads to no record");
    }
    return;
  }
  const std::uint64_t object = position + (facts_.fixed() ? 0 : kBlockHead);
  std::uint64_t stored = 0;
  const char* bytes = file_.view(object + 2, facts_.headerSize - 2);
  if (bytes != nullptr) std::memcpy(&stored, bytes, facts_.headerSize - 2);
  if (stored != id) {
    findings_.damage(file_, at, "slot " + text(id) + " leads to object " + text(stored));
  }
}

}  // namespace zelta::check
