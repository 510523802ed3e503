#include "objects/read/read_version.h"

#include <algorithm>
#include <cassert>

#include "objects/object_buffer.h"

namespace zelta {

namespace {

/// The size of an object that is much like the one in the table's buffer.
std::uint64_t expectedLength(const Table& table) {
  return std::uint64_t{table.objectLength} + table.objectLength / 4;
}

void forgetObject(Table& table) {
  table.objectData = nullptr;
  table.objectLength = 0;
}

/// The object in the buffer stays if the entry of the object map cannot be one.
Result readPendingVersion(TableAccess& access, const PendingObject& pending, RecordReader reader,
                          ObjectBytes* object) {
  const std::uint64_t end = access.manager().memoryEndOfFile;
  ZELTA_TRY(reader.checkPending(pending, end));
  forgetObject(access.table);
  return reader.readPending(pending, end, object);
}

Result readCommittedVersion(TableAccess& access, const Located& found, RecordReader reader,
                            ObjectBytes* object) {
  Table& table = access.table;
  const std::uint64_t expected =
      std::max<std::uint64_t>(expectedLength(table), access.header.defaultObjectSize);
  const RecordRules rules{access.header.endOfFile, table.minimumObjectSize};
  forgetObject(table);
  return reader.report(reader.fetch(found.objectID, found.tablePosition, rules, expected, object));
}

}  // namespace

Result readVersion(TableAccess& access, const Located& found) {
  assert(found.isPending() || found.tablePosition != 0);
  Table& table = access.table;
  const RecordReader reader(table, {table.objectBuffer, leadOf(table), true});
  ObjectBytes object;
  ZELTA_TRY(found.isPending() ? readPendingVersion(access, found.pending, reader, &object)
                              : readCommittedVersion(access, found, reader, &object));
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
