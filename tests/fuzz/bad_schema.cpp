#include "fuzz/bad_schema.h"

#include <iterator>

#include "fuzz/world.h"

namespace zelta::fuzz {

namespace {

constexpr std::uint32_t kSizes[] = {0, 1, 2, 3, 4, 8, 100, 65535, 70000, 0xFFFFFFF0, 0xFFFFFFFF};

void spoilField(CZELTA::Schema::Field& field, FormSchema& form, Steering& steering) {
  static constexpr const char16_t* kNames[] = {nullptr, u"", u"f0", u"F0", u"a name", u"\xD800"};
  switch (steering.below(5)) {
    case 0:
      field.fieldType = steering.byte();
      break;
    case 1:
      field.fieldSize = steering.pick(kSizes);
      break;
    case 2:
      field.fieldName = steering.pick(kNames);
      break;
    case 3:
      field.subFieldCount = steering.below(3);
      field.subFields = steering.flag() ? form.subFields : nullptr;
      break;
    default:
      field.fieldType = CZELTA::TypeSubRecords;
      field.subFields = form.subFields;
      field.subFieldCount = 2;
      break;
  }
}

void spoilIndex(FormSchema& form, Steering& steering) {
  const std::uint32_t which = steering.below(std::size(form.indexes));
  CZELTA::Schema::Index& index = form.indexes[which];
  CZELTA::Schema::Segment& segment = form.segments[which][steering.below(3)];
  switch (steering.below(6)) {
    case 0:
      index.indexKind = static_cast<std::uint8_t>(steering.below(8));
      index.maximumObjectPower = steering.byte();
      break;
    case 1:
      index.segmentCount = static_cast<std::uint16_t>(steering.below(4));
      break;
    case 2:
      segment.segmentField = static_cast<std::int32_t>(steering.below(30)) - 4;
      break;
    case 3:
      segment.segmentMode = steering.number<std::uint16_t>();
      break;
    case 4:
      index.segments = steering.flag() ? form.segments[which] : nullptr;
      break;
    default:
      segment.segmentField = steering.number<std::int32_t>();
      break;
  }
}

void spoilTable(CZELTA::Schema& schema, Steering& steering) {
  static const std::u16string kLong(400, u'n');
  static const std::u16string kInner = World::path("i");
  static const std::u16string kNowhere = World::path("nowhere/at/all/");
  const char16_t* names[] = {nullptr, u"",  u"../s/a",     u"i/a", u"..",      u"a.b", u"b\\c",
                             u"x*",   u"T", kLong.c_str(), u"A",   u"\xD800x", u"db"};
  const char16_t* folders[] = {u"", kInner.c_str(), kNowhere.c_str(), kLong.c_str(), u"i"};
  switch (steering.below(8)) {
    case 0:
      schema.tableName = steering.pick(names);
      break;
    case 1:
      schema.tablePath = steering.pick(folders);
      break;
    case 2:
      schema.tableId = steering.flag() ? steering.below(6) : 0xFFFFFFFF;
      break;
    case 3:
      schema.lockOrder = steering.flag() ? steering.below(6) : 0xFFFFFFFF;
      break;
    case 4:
      schema.lockIndex = static_cast<std::uint16_t>(steering.below(6));
      break;
    case 5:
      schema.schemaFlags = steering.byte();
      break;
    case 6:
      schema.fieldCount = steering.below(24);
      break;
    default:
      schema.indexCount = static_cast<std::uint16_t>(steering.below(5));
      break;
  }
}

}  // namespace

void spoil(FormSchema& form, Steering& steering) {
  for (std::uint32_t i = 1 + steering.below(2); i != 0; --i) {
    switch (steering.below(3)) {
      case 0:
        spoilField(form.fields[steering.below(std::size(form.fields))], form, steering);
        break;
      case 1:
        spoilIndex(form, steering);
        break;
      default:
        spoilTable(form.schema, steering);
        break;
    }
  }
}

}  // namespace zelta::fuzz
