#include "frame/slots.h"

#include "platform/file_io.h"

namespace zelta {

SystemCode Slot::readNumber(std::uint32_t* number) const {
  return readBuffer(file_, position_, number, sizeof *number);
}

SystemCode Slot::enter(std::uint32_t number) const {
  const std::uint32_t words[2] = {number, 1};
  return writeBuffer(file_, position_, words, sizeof words);
}

SystemCode Slot::clear() const {
  constexpr char kFree[kSize] = {};
  return writeBuffer(file_, position_, kFree, sizeof kFree);
}

SystemCode Slot::lockOwner() const { return platform::lockWord(file_, {ownerWord()}); }

void Slot::unlockOwner() const { platform::unlockWord(file_, {ownerWord()}); }

SystemCode SlotWalk::begin(std::uint64_t directoryEnd) {
  position_ = directoryEnd;
  return platform::fileSize(file_, &fileSize_);
}

bool SlotWalk::next() {
  if (position_ + Slot::kSize > fileSize_) return false;
  slot_ = Slot(file_, position_);
  position_ += Slot::kSize;
  return true;
}

}  // namespace zelta
