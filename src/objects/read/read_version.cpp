#include "objects/read/read_version.h"

#include <algorithm>

#include "objects/object_buffer.h"

namespace zelta {

namespace {

/// The size of an object that is much like the one in the table's buffer.
std::uint64_t expectedLength(const Table& table) {
  return std::uint64_t{table.objectLength} + table.objectLength / 4;
}

}  // namespace

Result readVersion(TableAccess& access, const Located& found) {
  Table& table = access.table;
  const std::uint64_t expected =
      std::max<std::uint64_t>(expectedLength(table), access.header.defaultObjectSize);
  table.objectData = nullptr;
  table.objectLength = 0;
  RecordReader reader(table, {table.objectBuffer, leadOf(table), true});
  ObjectBytes object;
  if (found.isPending()) {
    ZELTA_TRY(reader.readPending(found.pending, access.manager().memoryEndOfFile, &object));
  } else {
    const RecordRules rules{access.header.endOfFile, table.minimumObjectSize};
    ZELTA_TRY(
        reader.report(reader.fetch(found.objectID, found.tablePosition, rules, expected, &object)));
  }
  placeObject(table, object.length);
  return {};
}

Result readVersionAside(TableAccess& access, const Located& found, ObjectBytes* object) {
  if (found.isPending()) {
    return RecordReader::aside(access.table)
        .readPending(found.pending, access.manager().memoryEndOfFile, object);
  }
  return readCommittedAside(access.table, found.objectID, found.tablePosition, object);
}

Result readCommittedAside(const Table& table, std::uint64_t objectID, std::uint64_t position,
                          ObjectBytes* object) {
  RecordReader reader = RecordReader::aside(table);
  const RecordRules rules{RecordRules::kUnknown, table.minimumObjectSize};
  return reader.report(reader.fetch(objectID, position, rules, expectedLength(table), object));
}

}  // namespace zelta
