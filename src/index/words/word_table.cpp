#include "index/words/word_table.h"

#include <algorithm>
#include <cstring>

namespace zelta {

/// Mixes eight bytes at a time; words are short.
std::uint32_t WordTable::hashOf(std::string_view bytes) const {
  constexpr std::uint64_t kMultiplier = 0x9E3779B97F4A7C15;
  std::uint64_t hash = seed_ + bytes.size();
  const auto mix = [&](std::uint64_t part) {
    hash = (hash ^ part) * kMultiplier;
    hash = (hash ^ (hash >> 32)) * seed_;
  };
  std::size_t at = 0;
  for (; at + 8 <= bytes.size(); at += 8) {
    std::uint64_t part;
    std::memcpy(&part, bytes.data() + at, 8);
    mix(part);
  }
  std::uint64_t rest = 0;
  std::memcpy(&rest, bytes.data() + at, bytes.size() - at);
  mix(rest);
  return static_cast<std::uint32_t>(hash >> 32);
}

std::uint32_t WordTable::intern(std::string_view bytes) {
  if (slots_.size() < (words_.size() + 1) * 2) grow();
  const std::uint32_t hash = hashOf(bytes);
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
    const std::uint32_t number = slots_[i];
    if (number == kFree) {
      words_.push_back({keep(bytes), static_cast<std::uint32_t>(bytes.size()), hash});
      return slots_[i] = size() - 1;
    }
    if (words_[number].hash == hash && word(number) == bytes) return number;
  }
}

const char* WordTable::keep(std::string_view bytes) {
  if (bytes.size() > left_) {
    left_ = std::max(kBlock, bytes.size());
    blocks_.push_back(std::make_unique_for_overwrite<char[]>(left_));
    blockBytes_ += left_;
    free_ = blocks_.back().get();
  }
  char* kept = free_;
  std::memcpy(kept, bytes.data(), bytes.size());
  free_ += bytes.size();
  left_ -= bytes.size();
  return kept;
}

void WordTable::grow() {
  constexpr std::size_t kFirstSize = 1024;
  slots_.assign(std::max(kFirstSize, slots_.size() * 2), kFree);
  const std::size_t mask = slots_.size() - 1;
  for (std::uint32_t number = 0; number < size(); ++number) {
    std::size_t i = words_[number].hash & mask;
    while (slots_[i] != kFree) i = (i + 1) & mask;
    slots_[i] = number;
  }
}

std::size_t WordTable::memory() const {
  return blockBytes_ + words_.capacity() * sizeof(Word) + slots_.size() * sizeof(std::uint32_t);
}

void WordTable::clear() {
  constexpr std::size_t kUsual = std::size_t{1} << 18;  // words
  if (slots_.size() > kUsual) {
    words_ = {};
    slots_ = {};
  }
  words_.clear();
  std::fill(slots_.begin(), slots_.end(), kFree);
  blocks_.clear();
  free_ = nullptr;
  left_ = 0;
  blockBytes_ = 0;
}

}  // namespace zelta
