#include "index/btree/node.h"

#include <cassert>

namespace zelta {

namespace {

/// The count of entries has 16 bits.
constexpr std::uint32_t kMaximumCount = 0xFFFF;

}  // namespace

template <class Format>
typename TreeNode<Format>::State TreeNode<Format>::attach(TreePage page, const Format& format,
                                                          bool walk) {
  const char* bytes = page.bytes();
  page_ = page;
  format_ = format;
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
      format.head(leaf_) + std::uint64_t{format.pointerBytes(leaf_)} * pointerCount();
  if (size_ % 4 != 0 || fixedPart > size_) return State::badCount;
  const std::uint64_t room = size_ - fixedPart;
  if (!format.variable) {
    const std::uint64_t keys = std::uint64_t{count_} * format.keyBytes(nullptr);
    if (keys > room) return State::badCount;
    keyEnd_ = static_cast<std::uint32_t>(format.head(leaf_) + keys);
    freeBytes_ = static_cast<std::uint32_t>(room - keys);
    return State::sound;
  }
  std::uint32_t free = 0;
  std::memcpy(&free, bytes + format.head(leaf_) - 4, 4);
  if (std::uint64_t{free} * Format::kFreeUnit > room) return State::badFreeSpace;
  freeBytes_ = free * Format::kFreeUnit;
  keyEnd_ = static_cast<std::uint32_t>(format.head(leaf_) + room - freeBytes_);
  if (!walk) return State::sound;
  return format.withCodec([&](const auto& codec) { return walkKeys(codec); });
}

template <class Format>
template <class Codec>
typename TreeNode<Format>::State TreeNode<Format>::walkKeys(const Codec& codec) const {
  std::uint32_t offset = format_.head(leaf_);
  for (std::uint32_t i = 0; i < count_; ++i) {
    if (offset >= keyEnd_) return State::badFreeSpace;
    const std::uint32_t keyBytes = measure(codec, offset);
    if (keyBytes == 0) return State::badKeys;
    offset += keyBytes;
  }
  return offset == keyEnd_ ? State::sound : State::badFreeSpace;
}

template <class Format>
void TreeNode<Format>::makeEmpty(TreePage page, std::uint32_t size, bool leaf,
                                 const Format& format) {
  const std::uint16_t tag = leaf ? kLeafTag : kBranchTag;
  page_ = page;
  std::memcpy(bytes(), &size, 4);
  std::memcpy(bytes() + 4, &tag, 2);
  size_ = size;
  leaf_ = leaf;
  format_ = format;
  changeCounts(0, format.head(leaf));
}

/// Takes over what a change has made of the node, in the page as well. The only place that writes
/// count and free space.
template <class Format>
void TreeNode<Format>::changeCounts(std::uint32_t entries, std::uint32_t keyEnd) {
  assert(entries <= kMaximumCount && keyEnd <= size_);
  count_ = entries;
  keyEnd_ = keyEnd;
  freeBytes_ = size_ - keyEnd - format_.pointerBytes(leaf_) * pointerCount();
  const auto stored = static_cast<std::uint16_t>(entries);
  std::memcpy(bytes() + 6, &stored, 2);
  if (!format_.variable) return;
  const std::uint32_t free = freeBytes_ / Format::kFreeUnit;
  std::memcpy(bytes() + format_.head(leaf_) - 4, &free, 4);
}

// -- Keys -----------------------------------------------------------------------------------------

template <class Format>
template <class Codec>
std::uint32_t TreeNode<Format>::offsetOf(const Codec& codec, std::uint32_t number) const {
  std::uint32_t offset = format_.head(leaf_);
  if constexpr (Codec::kEqualLengths) {
    return offset + number * codec.bytes(nullptr);
  } else {
    if (number == count_) return keyEnd_;
    for (std::uint32_t i = 0; i < number; ++i) {
      const std::uint32_t keyBytes = measure(codec, offset);
      if (keyBytes == 0) return 0;
      offset += keyBytes;
    }
    return measure(codec, offset) != 0 ? offset : 0;
  }
}

/// The first key from a place on for whose offset and bytes `stop` is true.
template <class Format>
template <class Codec, class Stop>
typename TreeNode<Format>::Place TreeNode<Format>::scan(const Codec& codec, Place from,
                                                        Stop stop) const {
  std::uint32_t offset = from.offset;
  for (std::uint32_t i = from.number; i < count_; ++i) {
    const std::uint32_t keyBytes = measure(codec, offset);
    if (keyBytes == 0) return {i, 0, false};
    if (stop(offset, keyBytes)) return {i, offset, false};
    offset += keyBytes;
  }
  return {count_, offset, false};
}

template <class Format>
template <class Codec>
typename TreeNode<Format>::Place TreeNode<Format>::firstNotBelow(const Codec& codec, const Key* key,
                                                                 Place from) const {
  if constexpr (Codec::kEqualLengths) {
    const std::uint32_t length = codec.bytes(key);
    const auto compareTo = [&](std::uint32_t number) {
      return codec.compare(keyAt(offsetOf(codec, number)), length, key, length);
    };
    std::uint32_t low = from.number;
    std::uint32_t high = count_;
    while (low < high) {
      const std::uint32_t middle = (low + high) / 2;
      if (compareTo(middle) < 0) {
        low = middle + 1;
      } else {
        high = middle;
      }
    }
    return {low, offsetOf(codec, low), low < count_ && compareTo(low) == 0};
  } else {
    int sign = -1;
    const std::uint32_t length = codec.bytes(key);
    Place place = scan(codec, from, [&](std::uint32_t offset, std::uint32_t keyBytes) {
      sign = codec.compare(keyAt(offset), keyBytes, key, length);
      return sign >= 0;
    });
    place.equal = sign == 0;
    return place;
  }
}

template <class Format>
template <class Codec>
typename TreeNode<Format>::Place TreeNode<Format>::firstAbove(const Codec& codec,
                                                              const Key* key) const {
  if constexpr (Codec::kEqualLengths) {
    Place place = firstNotBelow(codec, key, start());
    if (place.equal) place.offset = offsetOf(codec, ++place.number);
    return place;
  } else {
    bool equal = false;
    const std::uint32_t length = codec.bytes(key);
    Place place = scan(codec, start(), [&](std::uint32_t offset, std::uint32_t keyBytes) {
      const int sign = codec.compare(keyAt(offset), keyBytes, key, length);
      if (sign <= 0) equal = sign == 0;
      return sign > 0;
    });
    place.equal = equal;
    return place;
  }
}

template <class Format>
std::uint32_t TreeNode<Format>::keyOffset(std::uint32_t number) const {
  return format_.withCodec([&](const auto& codec) { return offsetOf(codec, number); });
}

template <class Format>
typename TreeNode<Format>::Place TreeNode<Format>::lower(const Key* key) const {
  return lower(key, start());
}

template <class Format>
typename TreeNode<Format>::Place TreeNode<Format>::lower(const Key* key, Place from) const {
  return format_.withCodec([&](const auto& codec) { return firstNotBelow(codec, key, from); });
}

template <class Format>
typename TreeNode<Format>::Place TreeNode<Format>::above(const Key* key) const {
  return format_.withCodec([&](const auto& codec) { return firstAbove(codec, key); });
}

// -- Pointers -------------------------------------------------------------------------------------

template <class Format>
std::uint64_t TreeNode<Format>::pointer(std::uint32_t number) const {
  assert(number < pointerCount());
  std::uint64_t value = 0;
  std::memcpy(&value, pointerAt(number), format_.pointerBytes(leaf_));
  return value;
}

template <class Format>
void TreeNode<Format>::setPointer(std::uint32_t number, std::uint64_t value) {
  assert(number <= pointerCount());
  std::memcpy(pointerAt(number), &value, format_.pointerBytes(leaf_));
}

// -- Room -----------------------------------------------------------------------------------------

template <class Format>
std::uint64_t TreeNode<Format>::usableOf(std::uint32_t size) const {
  return size - format_.unusable(leaf_);
}

template <class Format>
std::uint64_t TreeNode<Format>::used() const {
  return usable() - freeBytes_;
}

template <class Format>
bool TreeNode<Format>::fits(std::uint32_t keyBytes) const {
  return count_ < kMaximumCount && freeBytes_ >= entryBytes(keyBytes);
}

// -- Changes --------------------------------------------------------------------------------------

template <class Format>
void TreeNode<Format>::insert(std::uint32_t number, std::uint32_t offset, const Key* key,
                              std::uint64_t pointer) {
  assert(number <= count_ && offset != 0 && offset <= keyEnd_);
  const std::uint32_t keyBytes = format_.keyBytes(key);
  assert(fits(keyBytes));
  const std::uint32_t width = format_.pointerBytes(leaf_);
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

template <class Format>
void TreeNode<Format>::erase(std::uint32_t number, std::uint32_t pointerNumber) {
  assert(number < count_ && pointerNumber < pointerCount());
  const std::uint32_t offset = keyOffset(number);
  const std::uint32_t keyBytes = format_.keyBytes(keyAt(offset));
  const std::uint32_t width = format_.pointerBytes(leaf_);
  const std::uint32_t pointers = pointerCount();
  std::memmove(bytes() + offset, bytes() + offset + keyBytes, keyEnd_ - offset - keyBytes);
  std::memset(bytes() + keyEnd_ - keyBytes, 0, keyBytes);
  char* lowest = pointerAt(pointers - 1);
  std::memmove(lowest + width, lowest, std::size_t{width} * (pointers - 1 - pointerNumber));
  std::memset(lowest, 0, width);
  changeCounts(count_ - 1, keyEnd_ - keyBytes);
}

template <class Format>
bool TreeNode<Format>::replaceKey(std::uint32_t number, const Key* key) {
  const std::uint32_t offset = keyOffset(number);
  assert(number < count_ && offset != 0);
  const std::uint32_t oldBytes = format_.keyBytes(keyAt(offset));
  const std::uint64_t newBytes = format_.keyBytes(key);
  if (newBytes > std::uint64_t{oldBytes} + freeBytes_) return false;
  const auto newEnd = static_cast<std::uint32_t>(keyEnd_ - oldBytes + newBytes);
  std::memmove(bytes() + offset + newBytes, bytes() + offset + oldBytes,
               keyEnd_ - offset - oldBytes);
  std::memcpy(bytes() + offset, key, newBytes);
  if (newEnd < keyEnd_) std::memset(bytes() + newEnd, 0, keyEnd_ - newEnd);
  changeCounts(count_, newEnd);
  return true;
}

template <class Format>
void TreeNode<Format>::append(const TreeNode& source, std::uint32_t from, std::uint32_t to) {
  if (from >= to) return;
  const std::uint32_t begin = source.keyOffset(from);
  const std::uint32_t keyBytes = source.keyOffset(to) - begin;
  assert(source.leaf_ == leaf_ && to <= source.count_ && count_ + (to - from) <= kMaximumCount);
  assert(keyBytes + std::uint64_t{format_.pointerBytes(leaf_)} * (to - from) <= freeBytes_);
  std::memcpy(bytes() + keyEnd_, source.bytes() + begin, keyBytes);
  const std::uint32_t shift = leaf_ ? 0u : 1u;
  std::memcpy(pointerAt(count_ + (to - from) - 1 + shift), source.pointerAt(to - 1 + shift),
              std::size_t{format_.pointerBytes(leaf_)} * (to - from));
  changeCounts(count_ + (to - from), keyEnd_ + keyBytes);
}

template <class Format>
void TreeNode<Format>::append(const Key* key, std::uint64_t pointer) {
  insert(count_, keyEnd_, key, pointer);
}

template <class Format>
void TreeNode<Format>::truncate(std::uint32_t entries) {
  assert(entries <= count_);
  const std::uint32_t end = keyOffset(entries);
  std::memset(bytes() + end, 0, keyEnd_ - end);
  char* lowest = pointerAt(pointerCount() - 1);
  std::memset(lowest, 0, std::size_t{format_.pointerBytes(leaf_)} * (count_ - entries));
  changeCounts(entries, end);
}

template <class Format>
void TreeNode<Format>::clear() {
  const std::uint32_t links = leaf_ ? 24u : 8u;
  std::memset(bytes() + links, 0, size_ - links);
  changeCounts(0, format_.head(leaf_));
}

template class TreeNode<NodeFormat>;
template class TreeNode<TextNodeFormat>;

}  // namespace zelta
