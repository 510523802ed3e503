#include "schema/validate_index.h"

#include <algorithm>

#include "schema/data_types.h"
#include "schema/index_traits.h"
#include "schema/validate.h"

namespace zelta {

namespace {

using Segment = CZELTA::Schema::Segment;

constexpr std::uint32_t kTextModes = 0x1EF;  ///< what a text segment of a B+Tree takes
constexpr std::uint32_t kListModes = 0x5C;
constexpr std::uint32_t kMostObjectsPower = 50;

/// What the segments of a B+Tree add up to.
struct TreeSums {
  std::uint64_t keyBytes = 0;
  std::uint32_t entrySegment = 0;
  std::uint32_t longSegment = 0xFFFFFFFF;  ///< the first one that makes a fixed key too long
};

class IndexValidation {
 public:
  IndexValidation(MetaData& metaData, const CZELTA::Schema& schema, CZELTA::Schema::Index& index,
                  std::uint32_t i)
      : metaData_(metaData), schema_(schema), index_(index), i_(i) {}

  Result run();

 private:
  Result fail(Own code, std::uint32_t k) {
    return reportError(&metaData_, code, nullptr, nullptr, k, i_);
  }
  Result failCount() { return reportError(&metaData_, Own::segmentCount, nullptr, nullptr, i_); }
  Result unresolved(std::uint32_t k) {
    return reportError(&metaData_, Own::segmentField, schema_.tableName, nullptr, k, i_);
  }
  void set(std::uint32_t flag) {
    index_.indexFlags = static_cast<std::uint8_t>(index_.indexFlags | flag);
  }
  /// Finds the field of segment k; a sub-field makes the index one of many entries.
  Result resolve(std::uint32_t k, FieldRef* ref) {
    if (!resolveField(schema_, index_.segments[k].segmentField, ref)) return unresolved(k);
    if (ref->subField != nullptr) set(CZELTA::IndexMultiEntry);
    return {};
  }

  /// Whether a segment with a field ID of 0 and above names a sub-field, be there one or not.
  [[nodiscard]] bool isSubField(std::uint32_t k) const {
    return static_cast<std::uint32_t>(index_.segments[k].segmentField) >= schema_.fieldCount;
  }

  Result checkTree();
  Result checkTreeSegment(std::uint32_t k, TreeSums* sums);
  Result checkTreeField(std::uint32_t k, const CZELTA::Schema::Field& field, TreeSums* sums);
  Result checkSpatial();
  Result checkTemporal();
  Result checkPattern();
  Result checkList();
  Result checkListSegment(std::uint32_t k, bool* words, std::uint32_t* prefix);
  Result failSingle(const FieldRef& ref);

  MetaData& metaData_;
  const CZELTA::Schema& schema_;
  CZELTA::Schema::Index& index_;
  std::uint32_t i_;
};

Result IndexValidation::run() {
  index_.indexFlags = 0;
  const IndexTraits* traits = findTraits(index_);
  if (traits == nullptr) {
    return reportError(&metaData_, Own::indexKind, schema_.tableName, nullptr, index_.indexKind,
                       i_);
  }
  switch (traits->segments) {
    case SegmentRule::values:
      return checkTree();
    case SegmentRule::box:
      return checkSpatial();
    case SegmentRule::span:
      return checkTemporal();
    case SegmentRule::words:
      return checkList();
    case SegmentRule::points:
      break;
  }
  return checkPattern();
}

Result IndexValidation::checkTree() {
  TreeSums sums;
  for (std::uint32_t k = 0; k < index_.segmentCount; ++k) ZELTA_TRY(checkTreeSegment(k, &sums));
  if (sums.entrySegment != 0 && (index_.indexFlags & CZELTA::IndexMultiEntry) == 0) {
    return unresolved(sums.entrySegment);
  }
  if ((index_.indexFlags & CZELTA::IndexVariableKey) != 0) {
    // An upper limit that rules nothing but the size of pages; it may wrap.
    index_.keyWords = (static_cast<std::uint32_t>(sums.keyBytes) + 4 + 3) / 4;
    return {};
  }
  if (sums.longSegment < index_.segmentCount) return fail(Own::segmentType, sums.longSegment);
  index_.keyWords = static_cast<std::uint32_t>((sums.keyBytes + 3) / 4);
  return {};
}

Result IndexValidation::checkTreeSegment(std::uint32_t k, TreeSums* sums) {
  const Segment& segment = index_.segments[k];
  if (segment.segmentField < CZELTA::EntryNumberSegment) return unresolved(k);
  if (segment.segmentField == CZELTA::EntryNumberSegment) sums->entrySegment = k;
  if (segment.segmentField < 0) {
    const bool wide = segment.segmentField == CZELTA::ObjectIdSegment &&
                      (schema_.schemaFlags & CZELTA::SchemaWideObjectIds) != 0;
    sums->keyBytes += wide ? 8 : 4;
    return segment.segmentMode > CZELTA::SegmentDescending ? fail(Own::segmentMode, k) : Result{};
  }
  FieldRef ref;
  ZELTA_TRY(resolve(k, &ref));
  return checkTreeField(k, ref.value(), sums);
}

Result IndexValidation::checkTreeField(std::uint32_t k, const CZELTA::Schema::Field& field,
                                       TreeSums* sums) {
  const std::uint32_t mode = index_.segments[k].segmentMode;
  switch (field.fieldType) {
    case CZELTA::TypeShortBinary:
    case CZELTA::TypeBinary:
    case CZELTA::TypeSubRecords:
    case CZELTA::TypeRect2:
    case CZELTA::TypeBox3:
      return fail(Own::segmentType, k);
    default:
      break;
  }
  sums->keyBytes += field.fieldSize;
  if (!isVariableType(field.fieldType)) {
    if (sums->keyBytes > kLargestObject) sums->longSegment = std::min(sums->longSegment, k);
    return mode > CZELTA::SegmentDescending ? fail(Own::segmentMode, k) : Result{};
  }
  set(CZELTA::IndexVariableKey);
  constexpr std::uint32_t kBothCases = CZELTA::SegmentUpperCase | CZELTA::SegmentLowerCase;
  const bool bad = (mode & ~kTextModes) != 0 || (mode & kBothCases) == kBothCases;
  return bad ? fail(Own::segmentMode, k) : Result{};
}

/// A field that the kind refuses: a sub-field is named by its place in the table.
Result IndexValidation::failSingle(const FieldRef& ref) {
  if (ref.subField == nullptr) return fail(Own::segmentType, 0);
  return reportError(&metaData_, Own::segmentType, nullptr, nullptr, ref.fieldNumber,
                     ref.subFieldNumber);
}

Result IndexValidation::checkSpatial() {
  index_.keyWords = 0;
  if (index_.segmentCount != 1) return failCount();
  if (index_.segments[0].segmentField < 0) return fail(Own::segmentField, 0);
  FieldRef ref;
  ZELTA_TRY(resolve(0, &ref));
  const std::uint32_t type = ref.value().fieldType;
  if (type != CZELTA::TypeRect2 && type != CZELTA::TypeBox3) return failSingle(ref);
  index_.keyWords = (ref.value().fieldSize + 3) / 4;
  index_.segments[0].segmentMode = 0;
  return {};
}

Result IndexValidation::checkTemporal() {
  index_.keyWords = 0;
  if (index_.segmentCount != 2) return failCount();
  for (std::uint32_t k = 0; k < 2; ++k) {
    if (index_.segments[k].segmentField < 0) return fail(Own::segmentField, k);
  }
  if (isSubField(0) != isSubField(1)) return fail(Own::multiEntry, 0);
  FieldRef from;
  FieldRef to;
  ZELTA_TRY(resolve(0, &from));
  ZELTA_TRY(resolve(1, &to));
  for (const FieldRef* ref : {&from, &to}) {
    const std::uint32_t type = ref->value().fieldType;
    const bool time = type == CZELTA::TypeDate || type == CZELTA::TypeDateTime;
    if (!time || type != from.value().fieldType)
      return fail(Own::segmentType, ref == &from ? 0 : 1);
  }
  index_.keyWords = (from.value().fieldSize + to.value().fieldSize + 3) / 4;
  index_.segments[0].segmentMode = 0;
  return {};
}

Result IndexValidation::checkPattern() {
  set(CZELTA::IndexListKind);
  index_.keyWords = 0;
  if (index_.segmentCount != 1) return failCount();
  if (index_.segments[0].segmentField < 0) return fail(Own::segmentField, 0);
  FieldRef ref;
  ZELTA_TRY(resolve(0, &ref));
  const std::uint32_t type = ref.value().fieldType;
  if (type != CZELTA::TypePoints2 && type != CZELTA::TypePoints3) return failSingle(ref);
  const std::uint32_t words = type == CZELTA::TypePoints2 ? 2 : 3;
  index_.keyWords = ref.subField != nullptr ? words + 1 : words;
  index_.segments[0].segmentMode = 0;
  return {};
}

Result IndexValidation::checkList() {
  if (index_.maximumObjectPower > kMostObjectsPower) {
    return reportError(&metaData_, Own::objectPower, nullptr, nullptr, i_,
                       index_.maximumObjectPower);
  }
  set(CZELTA::IndexListKind);
  bool words = false;
  std::uint32_t prefix = 0;
  index_.listPrefixBytes = 0;
  for (std::uint32_t k = 0; k < index_.segmentCount; ++k) {
    ZELTA_TRY(checkListSegment(k, &words, &prefix));
  }
  index_.listPrefixBytes = static_cast<std::uint16_t>(prefix);
  return {};
}

Result IndexValidation::checkListSegment(std::uint32_t k, bool* words, std::uint32_t* prefix) {
  const Segment& segment = index_.segments[k];
  const bool wordSegment = (segment.segmentMode & CZELTA::SegmentWords) != 0;
  if ((segment.segmentMode & ~kListModes) != 0) return fail(Own::segmentMode, k);
  if (segment.segmentField < 0) return fail(Own::segmentField, 0);
  const bool sub = isSubField(k);
  if (sub && !wordSegment) return fail(Own::segmentMode, k);
  FieldRef ref;
  ZELTA_TRY(resolve(k, &ref));
  const CZELTA::Schema::Field& field = ref.value();
  if (sub) {
    *words = true;
    switch (field.fieldType) {
      case CZELTA::TypeText:
      case CZELTA::TypeWideText:
      case CZELTA::TypeShortBinary:
      case CZELTA::TypeBinary:
      case CZELTA::TypeCharArray:
        return {};
      default:
        return fail(Own::segmentType, k);
    }
  }
  if (wordSegment) {
    *words = true;
    const bool good = isVariableType(field.fieldType) || field.fieldType == CZELTA::TypeCharArray;
    return good ? Result{} : fail(Own::segmentType, k);
  }
  if (*words) return fail(Own::segmentMode, k);
  if (isVariableType(field.fieldType)) return fail(Own::segmentType, k);
  constexpr std::uint64_t kLongestPrefix = 0xFFFF;
  if (std::uint64_t{*prefix} + field.fieldSize > kLongestPrefix) return fail(Own::segmentType, k);
  *prefix += field.fieldSize;
  return {};
}

}  // namespace

Result validateIndex(MetaData& metaData, const CZELTA::Schema& schema, CZELTA::Schema::Index& index,
                     std::uint32_t i) {
  return IndexValidation(metaData, schema, index, i).run();
}

}  // namespace zelta
