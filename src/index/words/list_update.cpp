#include "index/words/list_update.h"

#include <algorithm>
#include <string>
#include <vector>

#include "index/words/object_words.h"
#include "index/words/word_changes.h"
#include "index/words/word_entry.h"
#include "index/words/word_table.h"

namespace zelta {

namespace {

template <typename Unit>
class ListUpdate final : public ContentUpdate {
 public:
  ListUpdate(const IndexTree& tree, ContentMode mode)
      : tree_(tree),
        format_(listFormat<Unit>(tree)),
        mode_(mode),
        fields_(tree.table(), tree.index()) {}

  Result change(const ContentChange& change) override;
  Result finish() override { return applyAll(); }

 private:
  /// A change among those of all words.
  struct NotedChange {
    WordChange change;
    std::uint32_t number;  ///< of the word
  };
  struct SortedWord {
    std::uint64_t front;  ///< the first bytes of a key of 8-bit text, in their order
    std::uint32_t number;
  };
  enum Side : std::uint32_t { kBefore = 1, kAfter = 2 };

  /// Of a word: its changes, and in which versions of the object at hand it is.
  struct Entry {
    std::uint32_t changes = 0;
    std::uint32_t end = 0;     ///< behind those that are put together
    std::uint32_t object = 0;  ///< counts changes of objects, from 1
    std::uint32_t sides = 0;
  };

  Result collect(const ObjectBytes& object, Side side);
  void note(std::uint32_t number, Side side);
  void append(std::uint32_t number, std::uint64_t objectID, bool gains);
  [[nodiscard]] std::size_t memory() const;
  [[nodiscard]] std::vector<SortedWord> sortedWords() const;
  void putTogether(const std::vector<SortedWord>& order);
  Result applyAll();

  /// Memory from which on collected words are brought into the tree.
  static constexpr std::size_t kMostMemory = std::size_t{32} << 20;

  const IndexTree tree_;
  const TextNodeFormat format_;
  const ContentMode mode_;
  const WordFields fields_;
  WordMaker<Unit> maker_;
  WordTable words_;
  std::vector<Entry> entries_;  ///< of the words, by their numbers
  std::vector<NotedChange> changes_;
  std::vector<WordChange> together_;    ///< the same, word by word
  std::vector<std::uint32_t> touched_;  ///< words of the object at hand
  std::string prefix_;
  std::string key_;
  std::uint32_t objects_ = 0;
};

template <typename Unit>
Result ListUpdate<Unit>::change(const ContentChange& change) {
  ZELTA_TRY(fields_.check());
  ++objects_;
  touched_.clear();
  if (change.after.data != nullptr) ZELTA_TRY(collect(change.after, kAfter));
  if (change.before.data != nullptr) ZELTA_TRY(collect(change.before, kBefore));
  for (const std::uint32_t number : touched_) {
    const std::uint32_t sides = entries_[number].sides;
    if (sides != (kBefore | kAfter)) append(number, change.objectID, sides == kAfter);
  }
  return memory() < kMostMemory ? Result() : applyAll();
}

/// Notes the words of one version of the object at hand. A word under another prefix is another one.
template <typename Unit>
Result ListUpdate<Unit>::collect(const ObjectBytes& object, Side side) {
  ZELTA_TRY(fields_.readPrefix(object, &prefix_));
  for (const WordFields::Segment& segment : fields_.words()) {
    forEachWord<Unit>(fields_, segment, object, maker_, [&](std::basic_string_view<Unit> word) {
      // With the zero unit that stands behind it.
      const std::string_view text(reinterpret_cast<const char*>(word.data()),
                                  (word.size() + 1) * sizeof(Unit));
      if (!prefix_.empty()) key_.assign(prefix_).append(text);
      note(words_.intern(prefix_.empty() ? text : key_), side);
      return true;
    });
  }
  return {};
}

template <typename Unit>
void ListUpdate<Unit>::note(std::uint32_t number, Side side) {
  if (number == entries_.size()) entries_.emplace_back();
  Entry& entry = entries_[number];
  if (entry.object != objects_) {
    entry.object = objects_;
    entry.sides = 0;
    touched_.push_back(number);
  }
  entry.sides |= side;
}

template <typename Unit>
void ListUpdate<Unit>::append(std::uint32_t number, std::uint64_t objectID, bool gains) {
  changes_.push_back({{objectID, gains}, number});
  ++entries_[number].changes;
}

template <typename Unit>
std::size_t ListUpdate<Unit>::memory() const {
  return words_.memory() + entries_.size() * sizeof(Entry) +
         changes_.size() * (sizeof(NotedChange) + sizeof(WordChange));
}

/// The words with changes, ascending.
template <typename Unit>
std::vector<typename ListUpdate<Unit>::SortedWord> ListUpdate<Unit>::sortedWords() const {
  std::vector<SortedWord> order;
  order.reserve(words_.size());
  for (std::uint32_t number = 0; number < words_.size(); ++number) {
    if (entries_[number].changes == 0) continue;
    std::uint64_t front = 0;
    if constexpr (sizeof(Unit) == 1) {
      const std::string_view bytes = words_.word(number);
      for (std::size_t i = 0; i < sizeof front; ++i) {
        front = front << 8 | (i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0u);
      }
    }
    order.push_back({front, number});
  }
  format_.withCodec([&](const auto& codec) {
    std::sort(order.begin(), order.end(), [&](const SortedWord& a, const SortedWord& b) {
      if (a.front != b.front) return a.front < b.front;
      const std::string_view left = words_.word(a.number);
      const std::string_view right = words_.word(b.number);
      return codec.compare(left.data(), static_cast<std::uint32_t>(left.size()), right.data(),
                           static_cast<std::uint32_t>(right.size())) < 0;
    });
  });
  return order;
}

/// Sorts the changes by their words; those of one word stay in the order in which they came.
template <typename Unit>
void ListUpdate<Unit>::putTogether(const std::vector<SortedWord>& order) {
  std::uint32_t begin = 0;
  for (const SortedWord& sorted : order) {
    Entry& entry = entries_[sorted.number];
    entry.end = begin;
    begin += entry.changes;
  }
  together_.resize(changes_.size());
  for (const NotedChange& noted : changes_) together_[entries_[noted.number].end++] = noted.change;
}

template <typename Unit>
Result ListUpdate<Unit>::applyAll() {
  const std::vector<SortedWord> order = sortedWords();
  putTogether(order);
  WordWriter writer(tree_, format_, mode_);
  for (const SortedWord& sorted : order) {
    const Entry& entry = entries_[sorted.number];
    const WordChange* const changes = together_.data() + (entry.end - entry.changes);
    ZELTA_TRY(writer.apply({words_.word(sorted.number).data(), {changes, entry.changes}}));
  }
  ZELTA_TRY(writer.finish());
  words_.clear();
  entries_.clear();
  changes_.clear();
  return {};
}

}  // namespace

std::unique_ptr<ContentUpdate> beginAsciiUpdate(const IndexTree& committed, ContentMode mode) {
  return std::make_unique<ListUpdate<char>>(committed, mode);
}

std::unique_ptr<ContentUpdate> beginWideUpdate(const IndexTree& committed, ContentMode mode) {
  return std::make_unique<ListUpdate<char16_t>>(committed, mode);
}

}  // namespace zelta
