#include "index/keys/segment_keys.h"

#include <algorithm>
#include <cstring>

#include "index/keys/key_text.h"
#include "index/keys/key_writer.h"
#include "index/keys/object_values.h"

namespace zelta {

namespace {

using Field = CZELTA::Schema::Field;
using Segment = CZELTA::Schema::Segment;

/// Bytes of a text up to its terminator, or as far as it may be read.
std::uint64_t narrowLength(const SegmentValue& value) {
  const void* end = value.left == 0 ? nullptr : std::memchr(value.at, 0, value.left);
  return end == nullptr ? value.left
                        : static_cast<std::uint64_t>(static_cast<const char*>(end) - value.at);
}

std::uint64_t wideLength(const SegmentValue& value) {
  std::uint64_t length = 0;
  while (length + 2 <= value.left && (value.at[length] != 0 || value.at[length + 1] != 0))
    length += 2;
  return std::min(length, value.left / 2 * 2);
}

KeyText textOf(const Field& field, const SegmentValue& value) {
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
void writeFloat(const Field& field, const SegmentValue& value, bool descending, KeyWriter& out) {
  const unsigned bytes = field.fieldSize;
  const std::uint64_t sign = std::uint64_t{1} << (8 * bytes - 1);
  const std::uint64_t bits = loadBytes(value.at, bytes);
  const bool negative = (bits & sign) != 0;
  const std::uint64_t ascending = negative ? ~bits : bits | sign;
  if (descending) return out.putNumber(~ascending, bytes);
  out.putNumber(ascending, negative && field.fieldType == CZELTA::TypeDouble ? 7 : bytes);
}

/// Appends a value of a fixed type, so that its bytes compare as its values do.
void writeFixed(const Field& field, const SegmentValue& value, bool descending, KeyWriter& out) {
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

/// Values packed one after the other by a caller.
class PackedValues {
 public:
  PackedValues(const Table& table, const void* values)
      : table_(table), values_(static_cast<const char*>(values)), next_(values_) {}

  SegmentValue field(const FieldRef& ref) {
    const Field& field = ref.value();
    constexpr std::uint64_t kUnbounded = 0xFFFFFFFF;
    SegmentValue value{next_, kUnbounded};
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
  std::uint64_t objectID() {
    const std::uint64_t id = loadBytes(next_, table_.idSize());
    next_ += table_.idSize();
    return id;
  }
  std::uint32_t entryNumber() {
    const auto number = load<std::uint32_t>(next_);
    next_ += sizeof number;
    return number;
  }
  void rewind() { next_ = values_; }

 private:
  const Table& table_;
  const char* values_;
  const char* next_;
};

/// Makes a key out of values that come from a `Source`: an object, or a caller.
template <typename Source>
class SegmentKey {
 public:
  SegmentKey(Table& table, std::uint32_t index, Source& source)
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

/// Adds what a segment takes in a variable key, and moves on in the source.
template <typename Source>
Result SegmentKey<Source>::measureSegment(const Segment& segment, std::uint64_t* size,
                                          bool* missing) {
  if (segment.segmentField == CZELTA::ObjectIdSegment) {
    static_cast<void>(source_.objectID());
    *size += table_.idSize();
    return {};
  }
  if (segment.segmentField == CZELTA::EntryNumberSegment) {
    static_cast<void>(source_.entryNumber());
    *size += 4;
    return {};
  }
  FieldRef ref;
  if (!resolveField(*table_.schema, segment.segmentField, &ref)) return noKey();
  const Field& field = ref.value();
  if (!isText(field.fieldType) && fixedKeyBytes(field) == 0) return noKey();
  const SegmentValue value = source_.field(ref);
  if (value.at == nullptr) {
    *missing = true;
    return {};
  }
  *size += isText(field.fieldType) ? textKeySize(textOf(field, value), segment.segmentMode)
                                   : fixedKeyBytes(field);
  return {};
}

template <typename Source>
Result SegmentKey<Source>::measure(std::uint64_t* size) {
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

/// Appends the bytes of a segment, which compare as its values do.
template <typename Source>
bool SegmentKey<Source>::writeSegment(const Segment& segment, KeyWriter& out) {
  const bool descending = (segment.segmentMode & CZELTA::SegmentDescending) != 0;
  if (segment.segmentField < 0) {
    const bool id = segment.segmentField == CZELTA::ObjectIdSegment;
    const std::uint64_t number = id ? source_.objectID() : source_.entryNumber();
    out.putNumber(descending ? ~number : number, id ? table_.idSize() : 4);
    return true;
  }
  FieldRef ref;
  if (!resolveField(*table_.schema, segment.segmentField, &ref)) return false;
  const SegmentValue value = source_.field(ref);
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
template <typename Source>
std::uint32_t* SegmentKey<Source>::takeBuffer(std::uint64_t size, std::uint32_t* words) {
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

template <typename Source>
Result SegmentKey<Source>::make(std::uint64_t objectID, std::uint32_t** keyOut) {
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
  // The payload was written as bytes; words are compared, so the first byte has to count most.
  for (std::uint32_t i = start; i < words; ++i) key[i] = __builtin_bswap32(key[i]);
  *keyOut = key;
  return {};
}

}  // namespace

Result segmentKeyOfObject(Table& table, std::uint32_t index, const KeySource& from,
                          std::uint32_t** key) {
  ObjectValues values(table, from);
  return SegmentKey(table, index, values).make(values.objectID(), key);
}

Result segmentKeyOfValues(Table& table, std::uint32_t index, const void* values,
                          std::uint32_t** key) {
  PackedValues packed(table, values);
  return SegmentKey(table, index, packed).make(0, key);
}

}  // namespace zelta
