// What a list has of an object: the prefix of its keys, and the words of its texts.

#ifndef ZELTA_INDEX_WORDS_OBJECT_WORDS_H
#define ZELTA_INDEX_WORDS_OBJECT_WORDS_H

#include <cstdint>
#include <string>
#include <vector>

#include "index/keys/object_values.h"
#include "index/words/word_cutter.h"

namespace zelta {

/// The segments of a list, and what they name in objects.
class WordFields {
 public:
  struct Segment {
    FieldRef ref;
    std::uint32_t flags;
  };

  /// `index` counts from 0.
  WordFields(const Table& table, std::uint32_t index);

  /// Own code 59: a segment names no field.
  [[nodiscard]] Result check() const;
  /// Puts the bytes of all prefix fields into `*prefix`. Own code 39: the object does not hold one.
  Result readPrefix(const ObjectBytes& object, std::string* prefix) const;
  [[nodiscard]] const std::vector<Segment>& words() const { return words_; }
  [[nodiscard]] const Table& table() const { return table_; }

 private:
  const Table& table_;
  std::uint32_t prefixBytes_;
  bool sound_ = true;
  std::vector<Segment> prefix_;
  std::vector<Segment> words_;
};

/// The text that a field's value is to a list; none for a value that is cut off.
[[nodiscard]] WordText wordText(const CZELTA::Schema::Field& field, const SegmentValue& value);

/// Hands each word of one segment of an object to `use(word)`, until that returns false. A field
/// that the object does not hold, or one behind a field that cannot be stepped over, has no words.
template <typename Unit, class Use>
void forEachWord(const WordFields& fields, const WordFields::Segment& segment,
                 const ObjectBytes& object, WordMaker<Unit>& maker, Use use) {
  KeySource from{object, 0};
  RowPlaces rows;
  from.rows = &rows;
  for (;; ++from.entry) {
    const SegmentValue value = ObjectValues(fields.table(), from).field(segment.ref);
    if (value.at == nullptr) return;
    const WordText text = wordText(segment.ref.value(), value);
    if (!cutWords<Unit>(text, segment.flags, maker, use)) return;
    if (segment.ref.subField == nullptr) return;
  }
}

}  // namespace zelta

#endif  // ZELTA_INDEX_WORDS_OBJECT_WORDS_H
