#include "index/words/list_walk.h"

#include <cstring>

#include "platform/find_bytes.h"

namespace zelta {

template <typename Unit>
Result ListWalk<Unit>::load(std::uint64_t position) {
  TreePage page;
  ZELTA_TRY(pages_.view(position, PageRole::node, &page));
  const bool sound = leaf_.attach(page, format_, false) == TextNode::State::sound;
  return sound ? Result() : pages_.corrupted();
}

template <typename Unit>
Result ListWalk<Unit>::seek(const std::string& prefix, std::basic_string_view<Unit> word) {
  std::string key = prefix;
  key.append(reinterpret_cast<const char*>(word.data()), word.size() * sizeof(Unit));
  key.append(sizeof(Unit), '\0');
  std::uint64_t position = tree_.root();
  for (std::uint32_t depth = 0; depth < IndexTree::kMaximumDepth; ++depth) {
    ZELTA_TRY(load(position));
    if (leaf_.leaf()) {
      const TextNode::Place place = leaf_.lower(key.data());
      if (place.offset == 0) return pages_.corrupted();
      number_ = place.number;
      offset_ = place.offset;
      return step();
    }
    const TextNode::Place place = leaf_.above(key.data());
    if (place.offset == 0) return pages_.corrupted();
    position = leaf_.child(place.number);
  }
  return pages_.corrupted();
}

template <typename Unit>
Result ListWalk<Unit>::next() {
  ++number_;
  offset_ += keyBytes_;
  return step();
}

/// Takes the word at the present place, which may be behind the last one of its leaf.
template <typename Unit>
Result ListWalk<Unit>::step() {
  valid_ = false;
  while (number_ >= leaf_.count()) {
    const std::uint64_t behind = leaf_.next();
    if (behind == 0) return {};
    if (leavesLeft_-- == 0) return pages_.corrupted();
    ZELTA_TRY(load(behind));
    if (!leaf_.leaf()) return pages_.corrupted();
    number_ = 0;
    offset_ = format_.head(true);
  }
  keyBytes_ = codec_.measure(leaf_.keyAt(offset_), leaf_.keyEnd() - offset_);
  if (keyBytes_ == 0) return pages_.corrupted();
  valid_ = true;
  return {};
}

template <typename Unit>
Result ListWalk<Unit>::find(const std::string& prefix, std::string_view bytes) {
  while (valid_) {
    valid_ = hasPrefix(prefix);
    if (!valid_) return {};
    bool found = false;
    ZELTA_TRY(findInLeaf(bytes, &found));
    if (found) {
      valid_ = hasPrefix(prefix);
      return {};
    }
    number_ = leaf_.count();
    ZELTA_TRY(step());
  }
  return {};
}

/// All words of the leaf are looked through as one run of bytes; only where something is found it
/// matters where a word begins and ends.
template <typename Unit>
Result ListWalk<Unit>::findInLeaf(std::string_view bytes, bool* found) {
  const char* const end = leaf_.bytes() + leaf_.keyEnd();
  *found = false;
  for (const char* from = leaf_.keyAt(offset_) + format_.prefix; from < end; ++from) {
    from = platform::findBytes(from, end, bytes);
    if (from == nullptr) break;
    ZELTA_TRY(skipTo(from));
    const char* text = leaf_.keyAt(offset_) + format_.prefix;
    const char* behind = leaf_.keyAt(offset_) + keyBytes_;
    const bool whole = from >= text && static_cast<std::size_t>(from - text) % sizeof(Unit) == 0;
    *found = whole && bytes.size() <= static_cast<std::size_t>(behind - from);
    if (*found) return {};
  }
  // The last word ends where the words end.
  for (std::size_t i = 1; i <= sizeof(Unit); ++i) {
    if (end[-static_cast<std::ptrdiff_t>(i)] != 0) return pages_.corrupted();
  }
  return {};
}

/// Goes on to the word with the byte at `place`.
template <typename Unit>
Result ListWalk<Unit>::skipTo(const char* place) {
  while (place >= leaf_.keyAt(offset_) + keyBytes_) {
    offset_ += keyBytes_;
    if (++number_ >= leaf_.count()) return pages_.corrupted();
    keyBytes_ = codec_.measure(leaf_.keyAt(offset_), leaf_.keyEnd() - offset_);
    if (keyBytes_ == 0) return pages_.corrupted();
  }
  return {};
}

template <typename Unit>
std::basic_string_view<Unit> ListWalk<Unit>::word() const {
  const char* text = leaf_.keyAt(offset_) + format_.prefix;
  const std::size_t units = (keyBytes_ - format_.prefix) / sizeof(Unit) - 1;
  if constexpr (sizeof(Unit) == 1) {
    return {text, units};
  } else {
    aligned_.resize(units);
    std::memcpy(aligned_.data(), text, units * sizeof(Unit));
    return aligned_;
  }
}

template class ListWalk<char>;
template class ListWalk<char16_t>;

}  // namespace zelta
