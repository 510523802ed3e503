#include "index/bplus_node.h"

namespace zelta {

namespace {

/// The count of entries has 16 bits.
constexpr std::uint32_t kMaximumCount = 0xFFFF;

int compareRange(const std::uint32_t* a, const std::uint32_t* b, std::uint32_t from,
                 std::uint32_t to) {
  for (std::uint32_t i = from; i < to; ++i) {
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  }
  return 0;
}

}  // namespace

int BPlusShape::compare(const std::uint32_t* a, const std::uint32_t* b) const {
  if (!variable) return compareRange(a, b, 0, keyWords);
  const int sign = compareRange(a, b, 1, a[0] < b[0] ? a[0] : b[0]);
  if (sign != 0 || a[0] == b[0]) return sign;
  return a[0] < b[0] ? -1 : 1;
}

BPlusNode::State BPlusNode::attach(TreePage page, const BPlusShape& shape, bool walk) {
  const char* bytes = page.bytes();
  page_ = page;
  shape_ = shape;
  std::uint16_t tag = 0;
  std::uint16_t entries = 0;
  std::memcpy(&size_, bytes, 4);
  if (size_ < 8) return State::unknownTag;
  std::memcpy(&tag, bytes + 4, 2);
  std::memcpy(&entries, bytes + 6, 2);
  if (tag != kBranchTag && tag != kLeafTag) return State::unknownTag;
  leaf_ = tag == kLeafTag;
  count_ = entries;
  const std::uint64_t fixedPart =
      shape.head(leaf_) + std::uint64_t{shape.pointerBytes(leaf_)} * pointerCount();
  if (size_ % 4 != 0 || fixedPart > size_) return State::badCount;
  const std::uint64_t room = size_ - fixedPart;
  if (!shape.variable) {
    const std::uint64_t keys = std::uint64_t{count_} * shape.keyWords * 4;
    if (keys > room) return State::badCount;
    keyEnd_ = static_cast<std::uint32_t>(shape.head(leaf_) + keys);
    freeBytes_ = static_cast<std::uint32_t>(room - keys);
    return State::sound;
  }
  std::uint32_t freeWords = 0;
  std::memcpy(&freeWords, bytes + shape.head(leaf_) - 4, 4);
  if (std::uint64_t{freeWords} * 4 > room) return State::badFreeWords;
  freeBytes_ = freeWords * 4;
  keyEnd_ = static_cast<std::uint32_t>(shape.head(leaf_) + room - freeBytes_);
  return walk ? walkKeys() : State::sound;
}

BPlusNode::State BPlusNode::walkKeys() const {
  std::uint64_t offset = shape_.head(leaf_);
  for (std::uint32_t i = 0; i < count_; ++i) {
    if (offset >= keyEnd_) return State::badFreeWords;
    if (!keyFits(static_cast<std::uint32_t>(offset))) return State::badKeys;
    offset += std::uint64_t{keyAt(static_cast<std::uint32_t>(offset))[0]} * 4;
  }
  return offset == keyEnd_ ? State::sound : State::badFreeWords;
}

void BPlusNode::format(TreePage page, std::uint32_t size, bool leaf, const BPlusShape& shape) {
  const std::uint16_t tag = leaf ? kLeafTag : kBranchTag;
  page_ = page;
  std::memcpy(bytes(), &size, 4);
  std::memcpy(bytes() + 4, &tag, 2);
  size_ = size;
  leaf_ = leaf;
  shape_ = shape;
  changeCounts(0, shape.head(leaf));
}

void BPlusNode::changeCounts(std::uint32_t entries, std::uint32_t keyEnd) {
  count_ = entries;
  keyEnd_ = keyEnd;
  freeBytes_ = size_ - keyEnd - shape_.pointerBytes(leaf_) * pointerCount();
  const auto stored = static_cast<std::uint16_t>(entries);
  std::memcpy(bytes() + 6, &stored, 2);
  if (!shape_.variable) return;
  const std::uint32_t freeWords = freeBytes_ / 4;
  std::memcpy(bytes() + shape_.head(leaf_) - 4, &freeWords, 4);
}

// -- Keys -----------------------------------------------------------------------------------------

bool BPlusNode::keyFits(std::uint32_t offset) const {
  if (keyEnd_ - offset < 4) return false;
  const std::uint32_t words = keyAt(offset)[0];
  return words != 0 && words <= (keyEnd_ - offset) / 4;
}

std::uint32_t BPlusNode::keyOffset(std::uint32_t number) const {
  std::uint32_t offset = shape_.head(leaf_);
  if (!shape_.variable) return offset + number * shape_.keyWords * 4;
  if (number == count_) return keyEnd_;
  for (std::uint32_t i = 0; i < number; ++i) {
    if (!keyFits(offset)) return 0;
    offset += keyAt(offset)[0] * 4;
  }
  return keyFits(offset) ? offset : 0;
}

template <class Stop>
BPlusNode::Place BPlusNode::searchVariable(Stop stop) const {
  std::uint32_t offset = shape_.head(leaf_);
  for (std::uint32_t i = 0; i < count_; ++i) {
    if (!keyFits(offset)) return {i, 0, false};
    if (stop(offset)) return {i, offset, false};
    offset += keyAt(offset)[0] * 4;
  }
  return {count_, offset, false};
}

BPlusNode::Place BPlusNode::lower(const std::uint32_t* key) const {
  if (shape_.variable) {
    int sign = -1;
    Place place = searchVariable([&](std::uint32_t offset) {
      sign = shape_.compare(keyAt(offset), key);
      return sign >= 0;
    });
    place.equal = sign == 0;
    return place;
  }
  std::uint32_t low = 0;
  std::uint32_t high = count_;
  while (low < high) {
    const std::uint32_t middle = (low + high) / 2;
    if (shape_.compare(this->key(middle), key) < 0) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return {low, keyOffset(low), low < count_ && shape_.compare(this->key(low), key) == 0};
}

BPlusNode::Place BPlusNode::above(const std::uint32_t* key) const {
  if (shape_.variable) {
    bool equal = false;
    Place place = searchVariable([&](std::uint32_t offset) {
      const int sign = shape_.compare(keyAt(offset), key);
      if (sign <= 0) equal = sign == 0;
      return sign > 0;
    });
    place.equal = equal;
    return place;
  }
  Place place = lower(key);
  if (place.equal) place.offset = keyOffset(++place.number);
  return place;
}

// -- Pointers -------------------------------------------------------------------------------------

std::uint64_t BPlusNode::pointer(std::uint32_t number) const {
  std::uint64_t value = 0;
  std::memcpy(&value, pointerAt(number), shape_.pointerBytes(leaf_));
  return value;
}

void BPlusNode::setPointer(std::uint32_t number, std::uint64_t value) {
  std::memcpy(pointerAt(number), &value, shape_.pointerBytes(leaf_));
}

// -- Room -----------------------------------------------------------------------------------------

std::uint64_t BPlusNode::usableOf(std::uint32_t size) const {
  // A fixed branch counts the place of its first child among the usable bytes.
  return size - (shape_.variable ? shape_.frame(leaf_) : shape_.head(leaf_));
}

std::uint64_t BPlusNode::used() const { return usable() - freeBytes_; }

bool BPlusNode::fits(std::uint32_t words) const {
  return count_ < kMaximumCount && freeBytes_ >= entryBytes(words);
}

// -- Changes --------------------------------------------------------------------------------------

void BPlusNode::insert(std::uint32_t number, std::uint32_t offset, const std::uint32_t* key,
                       std::uint64_t pointer) {
  const std::uint32_t keyBytes = shape_.words(key) * 4;
  const std::uint32_t width = shape_.pointerBytes(leaf_);
  const std::uint32_t place = number + (leaf_ ? 0u : 1u);
  const std::uint32_t pointers = pointerCount();
  std::memmove(bytes() + offset + keyBytes, bytes() + offset, keyEnd_ - offset);
  std::memcpy(bytes() + offset, key, keyBytes);
  if (place < pointers) {
    char* lowest = pointerAt(pointers - 1);
    std::memmove(lowest - width, lowest, std::size_t{width} * (pointers - place));
  }
  setPointer(place, pointer);
  changeCounts(count_ + 1, keyEnd_ + keyBytes);
}

void BPlusNode::erase(std::uint32_t number, std::uint32_t pointerNumber) {
  const std::uint32_t offset = keyOffset(number);
  const std::uint32_t keyBytes = shape_.words(keyAt(offset)) * 4;
  const std::uint32_t width = shape_.pointerBytes(leaf_);
  const std::uint32_t pointers = pointerCount();
  std::memmove(bytes() + offset, bytes() + offset + keyBytes, keyEnd_ - offset - keyBytes);
  std::memset(bytes() + keyEnd_ - keyBytes, 0, keyBytes);
  char* lowest = pointerAt(pointers - 1);
  std::memmove(lowest + width, lowest, std::size_t{width} * (pointers - 1 - pointerNumber));
  std::memset(lowest, 0, width);
  changeCounts(count_ - 1, keyEnd_ - keyBytes);
}

bool BPlusNode::replaceKey(std::uint32_t number, const std::uint32_t* key) {
  const std::uint32_t offset = keyOffset(number);
  const std::uint32_t oldBytes = shape_.words(keyAt(offset)) * 4;
  const std::uint64_t newBytes = std::uint64_t{shape_.words(key)} * 4;
  if (newBytes > std::uint64_t{oldBytes} + freeBytes_) return false;
  const auto newEnd = static_cast<std::uint32_t>(keyEnd_ - oldBytes + newBytes);
  std::memmove(bytes() + offset + newBytes, bytes() + offset + oldBytes,
               keyEnd_ - offset - oldBytes);
  std::memcpy(bytes() + offset, key, newBytes);
  if (newEnd < keyEnd_) std::memset(bytes() + newEnd, 0, keyEnd_ - newEnd);
  changeCounts(count_, newEnd);
  return true;
}

void BPlusNode::append(const BPlusNode& source, std::uint32_t from, std::uint32_t to) {
  if (from >= to) return;
  const std::uint32_t begin = source.keyOffset(from);
  const std::uint32_t keyBytes = source.keyOffset(to) - begin;
  std::memcpy(bytes() + keyEnd_, source.bytes() + begin, keyBytes);
  const std::uint32_t shift = leaf_ ? 0u : 1u;
  std::memcpy(pointerAt(count_ + (to - from) - 1 + shift), source.pointerAt(to - 1 + shift),
              std::size_t{shape_.pointerBytes(leaf_)} * (to - from));
  changeCounts(count_ + (to - from), keyEnd_ + keyBytes);
}

void BPlusNode::append(const std::uint32_t* key, std::uint64_t pointer) {
  insert(count_, keyEnd_, key, pointer);
}

void BPlusNode::truncate(std::uint32_t entries) {
  const std::uint32_t end = keyOffset(entries);
  std::memset(bytes() + end, 0, keyEnd_ - end);
  char* lowest = pointerAt(pointerCount() - 1);
  std::memset(lowest, 0, std::size_t{shape_.pointerBytes(leaf_)} * (count_ - entries));
  changeCounts(entries, end);
}

void BPlusNode::clear() {
  const std::uint32_t links = leaf_ ? 24u : 8u;
  std::memset(bytes() + links, 0, size_ - links);
  changeCounts(0, shape_.head(leaf_));
}

}  // namespace zelta
