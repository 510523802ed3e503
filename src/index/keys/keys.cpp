#include "index/keys/keys.h"

#include <algorithm>
#include <cstring>

#include "index/keys/key_text.h"
#include "index/keys/key_writer.h"
#include "schema/data_types.h"
#include "schema/object_view.h"

namespace zelta {

namespace {

using Field = CZELTA::Schema::Field;
using Segment = CZELTA::Schema::Segment;

/// The value of a segment: where it stands and how far it may be read.
struct Value {
  const char* at = nullptr;
  std::uint64_t left = 0;
};

std::uint64_t narrowLength(const Value& value) {
  const void* end = value.left == 0 ? nullptr : std::memchr(value.at, 0, value.left);
  return end == nullptr ? value.left
                        : static_cast<std::uint64_t>(static_cast<const char*>(end) - value.at);
}

std::uint64_t wideLength(const Value& value) {
  std::uint64_t length = 0;
  while (length + 2 <= value.left && (value.at[length] != 0 || value.at[length + 1] != 0))
    length += 2;
  return std::min(length, value.left / 2 * 2);
}

KeyText textOf(const Field& field, const Value& value) {
  const bool wide = field.fieldType == CZELTA::TypeWideText;
  return {value.at, wide ? wideLength(value) : narrowLength(value), wide};
}

bool isText(std::uint32_t type) { return type == CZELTA::TypeText || type == CZELTA::TypeWideText; }

/// Bytes of a fixed field's value in a key; 0 for a type that has no place in one.
std::uint32_t fixedKeyBytes(const Field& field) {
  switch (field.fieldType) {
    case CZELTA::TypeRect2:
    case CZELTA::TypeBox3:
      return 0;
    default:
      return isVariableType(field.fieldType) ? 0 : field.fieldSize;
  }
}

template <typename Number>
Number load(const char* at) {
  Number number;
  std::memcpy(&number, at, sizeof number);
  return number;
}

std::uint64_t loadBytes(const char* at, unsigned bytes) {
  std::uint64_t number = 0;
  std::memcpy(&number, at, bytes);
  return number;
}

bool isSigned(std::uint32_t type) {
  switch (type) {
    case CZELTA::TypeInt8:
    case CZELTA::TypeInt16:
    case CZELTA::TypeInt32:
    case CZELTA::TypeInt64:
    case CZELTA::TypeTag64:
      return true;
    default:
      return false;
  }
}

/// Floating point: negative numbers are complemented, others get their sign bit set. A negative
/// TypeDouble that ascends leaves its first byte out.
void writeFloat(const Field& field, const Value& value, bool descending, KeyWriter& out) {
  const unsigned bytes = field.fieldSize;
  const std::uint64_t sign = std::uint64_t{1} << (8 * bytes - 1);
  const std::uint64_t bits = loadBytes(value.at, bytes);
  const bool negative = (bits & sign) != 0;
  const std::uint64_t ascending = negative ? ~bits : bits | sign;
  if (descending) return out.putNumber(~ascending, bytes);
  out.putNumber(ascending, negative && field.fieldType == CZELTA::TypeDouble ? 7 : bytes);
}

void writeFixed(const Field& field, const Value& value, bool descending, KeyWriter& out) {
  const unsigned bytes = field.fieldSize;
  if (field.fieldType == CZELTA::TypeFloat || field.fieldType == CZELTA::TypeDouble) {
    return writeFloat(field, value, descending, out);
  }
  if (field.fieldType == CZELTA::TypeCharArray) {
    for (unsigned i = 0; i < bytes; ++i) {
      const auto byte = static_cast<unsigned char>(value.at[i]);
      out.put(descending ? static_cast<unsigned char>(~byte) : byte);
    }
    return;
  }
  std::uint64_t number = loadBytes(value.at, bytes);
  if (isSigned(field.fieldType)) number ^= std::uint64_t{1} << (8 * bytes - 1);
  out.putNumber(descending ? ~number : number, bytes);
}

/// Where the values of a key come from.
class Source {
 public:
  virtual ~Source() = default;
  /// The value of a field; null if there is none.
  virtual Value field(const FieldRef& ref) = 0;
  virtual std::uint64_t objectID() = 0;
  virtual std::uint32_t entryNumber() = 0;
  /// Starts over with the first segment.
  virtual void rewind() {}
};

/// An object, whose sub-record `entry` is meant.
class ObjectSource final : public Source {
 public:
  ObjectSource(const Table& table, const char* object, std::uint32_t size, std::uint32_t entry,
               RowPlaces* rows)
      : table_(table), object_(object), size_(size), entry_(entry), rows_(rows) {}

  Value field(const FieldRef& ref) override {
    const char* at = ref.subField == nullptr
                         ? fieldAddress(table_, ref.fieldNumber, {object_, size_})
                         : subFieldAddress(table_, {ref.fieldNumber, ref.subFieldNumber, entry_},
                                           {object_, size_}, rows_);
    if (at == nullptr || at >= object_ + size_) return {};
    return {at, static_cast<std::uint64_t>(object_ + size_ - at)};
  }
  std::uint64_t objectID() override { return objectIdOf(table_, object_); }
  std::uint32_t entryNumber() override { return entry_; }

 private:
  const Table& table_;
  const char* object_;
  std::uint32_t size_;
  std::uint32_t entry_;
  RowPlaces* rows_;
};

/// Values packed one after the other by a caller.
class ImageSource final : public Source {
 public:
  ImageSource(const Table& table, const void* image)
      : table_(table), image_(static_cast<const char*>(image)), next_(image_) {}

  Value field(const FieldRef& ref) override {
    const Field& field = ref.value();
    constexpr std::uint64_t kUnbounded = 0xFFFFFFFF;
    Value value{next_, kUnbounded};
    if (field.fieldType == CZELTA::TypeText) {
      value.left = std::strlen(next_) + 1;
    } else if (field.fieldType == CZELTA::TypeWideText) {
      value.left = wideLength(value) + 2;
    } else {
      value.left = field.fieldSize;
    }
    next_ += value.left;
    return value;
  }
  std::uint64_t objectID() override {
    const std::uint64_t id = loadBytes(next_, table_.idSize());
    next_ += table_.idSize();
    return id;
  }
  std::uint32_t entryNumber() override {
    const auto number = load<std::uint32_t>(next_);
    next_ += sizeof number;
    return number;
  }
  void rewind() override { next_ = image_; }

 private:
  const Table& table_;
  const char* image_;
  const char* next_;
};

/// Makes the key of a B+Tree.
class TreeKey {
 public:
  TreeKey(Table& table, std::uint32_t index, Source& source)
      : metaData_(table.metaData),
        table_(table),
        index_(table.index(index)),
        number_(index),
        source_(source) {}

  /// Bytes of a variable key's payload, words of a fixed one; 0 if a value is missing.
  Result measure(std::uint64_t* size);
  Result make(std::uint64_t objectID, std::uint32_t** keyOut);

 private:
  Result noKey() { return reportError(&metaData_, Own::noObject); }
  Result measureSegment(const Segment& segment, std::uint64_t* size, bool* missing);
  /// False if the value is missing.
  bool writeSegment(const Segment& segment, KeyWriter& out);
  std::uint32_t* takeBuffer(std::uint64_t size, std::uint32_t* words);

  MetaData& metaData_;
  Table& table_;
  const CZELTA::Schema::Index& index_;
  std::uint32_t number_;
  Source& source_;
};

Result TreeKey::measureSegment(const Segment& segment, std::uint64_t* size, bool* missing) {
  if (segment.segmentField == CZELTA::ObjectIdSegment) {
    source_.objectID();
    *size += table_.idSize();
    return {};
  }
  if (segment.segmentField == CZELTA::EntryNumberSegment) {
    source_.entryNumber();
    *size += 4;
    return {};
  }
  FieldRef ref;
  if (!resolveField(*table_.schema, segment.segmentField, &ref)) return noKey();
  const Field& field = ref.value();
  if (!isText(field.fieldType) && fixedKeyBytes(field) == 0) return noKey();
  const Value value = source_.field(ref);
  if (value.at == nullptr) {
    *missing = true;
    return {};
  }
  *size += isText(field.fieldType) ? textKeySize(textOf(field, value), segment.segmentMode)
                                   : fixedKeyBytes(field);
  return {};
}

Result TreeKey::measure(std::uint64_t* size) {
  *size = 0;
  if ((index_.indexFlags & CZELTA::IndexVariableKey) == 0) {
    *size = index_.keyWords;
    return {};
  }
  bool missing = false;
  source_.rewind();
  for (std::uint32_t k = 0; k < index_.segmentCount && !missing; ++k) {
    ZELTA_TRY(measureSegment(index_.segments[k], size, &missing));
  }
  if (missing) *size = 0;
  return {};
}

bool TreeKey::writeSegment(const Segment& segment, KeyWriter& out) {
  const bool descending = (segment.segmentMode & CZELTA::SegmentDescending) != 0;
  if (segment.segmentField < 0) {
    const bool id = segment.segmentField == CZELTA::ObjectIdSegment;
    const std::uint64_t number = id ? source_.objectID() : source_.entryNumber();
    out.putNumber(descending ? ~number : number, id ? table_.idSize() : 4);
    return true;
  }
  FieldRef ref;
  if (!resolveField(*table_.schema, segment.segmentField, &ref)) return false;
  const Value value = source_.field(ref);
  if (value.at == nullptr) return false;
  const Field& field = ref.value();
  if (isText(field.fieldType)) {
    writeTextKey(textOf(field, value), segment.segmentMode, out);
    return true;
  }
  if (value.left < field.fieldSize) return false;
  writeFixed(field, value, descending, out);
  return true;
}

/// A buffer of zeros for a payload.
std::uint32_t* TreeKey::takeBuffer(std::uint64_t size, std::uint32_t* words) {
  KeyPool& pool = table_.indexStates[number_].keyPool;
  if ((index_.indexFlags & CZELTA::IndexVariableKey) == 0) {
    *words = index_.keyWords;
    std::uint32_t* key = pool.takeFixed(*words);
    std::memset(key, 0, std::size_t{*words} * 4);
    return key;
  }
  *words = static_cast<std::uint32_t>((size + 3) / 4 + 1);
  std::uint32_t* key = pool.takeVariable(*words);
  std::memset(key, 0, std::size_t{*words} * 4);
  key[0] = *words;
  return key;
}

Result TreeKey::make(std::uint64_t objectID, std::uint32_t** keyOut) {
  std::uint64_t size = 0;
  ZELTA_TRY(measure(&size));
  const bool variable = (index_.indexFlags & CZELTA::IndexVariableKey) != 0;
  if (size == 0 && variable) {
    return (index_.indexFlags & CZELTA::IndexMultiEntry) != 0 ? Result{} : noKey();
  }
  if (size == 0) {
    return reportError(&metaData_, Own::indexKind, table_.cName(), nullptr, index_.indexKind,
                       number_);
  }
  std::uint32_t words = 0;
  std::uint32_t* key = takeBuffer(size, &words);
  const std::uint32_t start = variable ? 1 : 0;
  KeyWriter out(reinterpret_cast<unsigned char*>(key + start), std::uint64_t{words - start} * 4);
  KeyPool& pool = table_.indexStates[number_].keyPool;
  source_.rewind();
  for (std::uint32_t k = 0; k < index_.segmentCount; ++k) {
    if (writeSegment(index_.segments[k], out)) continue;
    pool.release(table_.keyShape(number_), key);
    return {};
  }
  if (out.overrun()) {
    pool.release(table_.keyShape(number_), key);
    return reportSystemError(&metaData_, code::kBufferTooSmall, nullptr, nullptr, number_ + 1,
                             static_cast<std::int64_t>(objectID));
  }
  for (std::uint32_t i = start; i < words; ++i) key[i] = __builtin_bswap32(key[i]);
  *keyOut = key;
  return {};
}

/// A box as key: the lower corners, then the upper ones.
void normaliseBox(const char* box, std::uint32_t words, std::uint32_t* key) {
  const std::uint32_t axes = words / 2;
  for (std::uint32_t a = 0; a < axes; ++a) {
    const auto first = load<std::int32_t>(box + 4 * std::size_t{a});
    const auto second = load<std::int32_t>(box + 4 * std::size_t{a + axes});
    key[a] = static_cast<std::uint32_t>(std::min(first, second));
    key[a + axes] = static_cast<std::uint32_t>(std::max(first, second));
  }
}

template <typename Number>
void normaliseSpan(const char* from, const char* to, std::uint32_t* key) {
  const Number ends[2] = {std::min(load<Number>(from), load<Number>(to)),
                          std::max(load<Number>(from), load<Number>(to))};
  std::memcpy(key, ends, sizeof ends);
}

void makeSpan(const char* from, const char* to, std::uint32_t words, std::uint32_t* key) {
  if (words == 2) {
    normaliseSpan<std::uint32_t>(from, to, key);
  } else {
    normaliseSpan<std::uint64_t>(from, to, key);
  }
}

/// The keys of boxes and time spans, out of an object.
Result extractGeometry(Table& table, std::uint32_t number, Source& source, std::uint32_t** keyOut) {
  const CZELTA::Schema::Index& index = table.index(number);
  Value ends[2];
  for (std::uint32_t k = 0; k < index.segmentCount && k < 2; ++k) {
    FieldRef ref;
    if (!resolveField(*table.schema, index.segments[k].segmentField, &ref)) {
      return reportError(&table.metaData, Own::noObject);
    }
    ends[k] = source.field(ref);
    if (ends[k].at == nullptr || ends[k].left < ref.value().fieldSize) return {};
  }
  std::uint32_t* key = table.indexStates[number].keyPool.takeFixed(index.keyWords);
  if (index.indexKind == CZELTA::SpatialTree) {
    normaliseBox(ends[0].at, index.keyWords, key);
  } else {
    makeSpan(ends[0].at, ends[1].at, index.keyWords, key);
  }
  *keyOut = key;
  return {};
}

}  // namespace

Result extractKey(Table& table, std::uint32_t index, const KeySource& from,
                  std::uint32_t** keyOut) {
  *keyOut = nullptr;
  ObjectBytes object = from.object;
  if (object.data == nullptr) object = {table.objectData, table.objectLength};
  if (object.data == nullptr || object.length < table.fixedAreaSize) {
    return reportError(&table.metaData, Own::noObject);
  }
  ObjectSource source(table, object.data, object.length, from.entry, from.rows);
  switch (table.index(index).indexKind) {
    case CZELTA::BPlusTree:
      return TreeKey(table, index, source).make(source.objectID(), keyOut);
    case CZELTA::SpatialTree:
    case CZELTA::TemporalTree:
      return extractGeometry(table, index, source, keyOut);
    default:
      return reportError(&table.metaData, Own::noObject);
  }
}

Result buildSearchKey(Table& table, std::uint32_t index, const void* image,
                      std::uint32_t** keyOut) {
  *keyOut = nullptr;
  if (image == nullptr) return reportError(&table.metaData, Own::parameter, table.cName());
  const CZELTA::Schema::Index& definition = table.index(index);
  const char* bytes = static_cast<const char*>(image);
  if (definition.indexKind == CZELTA::BPlusTree) {
    ImageSource source(table, image);
    return TreeKey(table, index, source).make(0, keyOut);
  }
  if (definition.indexKind != CZELTA::SpatialTree && definition.indexKind != CZELTA::TemporalTree) {
    return reportError(&table.metaData, Own::noObject);
  }
  std::uint32_t* key = table.indexStates[index].keyPool.takeFixed(definition.keyWords);
  if (definition.indexKind == CZELTA::SpatialTree) {
    normaliseBox(bytes, definition.keyWords, key);
  } else {
    makeSpan(bytes, bytes + std::size_t{definition.keyWords} * 2, definition.keyWords, key);
  }
  *keyOut = key;
  return {};
}

}  // namespace zelta
