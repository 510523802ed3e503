#include "transaction/commit/version_reader.h"

#include "schema/record_reader.h"
#include "storage/memory_file/memory_file_map.h"
#include "storage/table_file/table_recovery.h"

namespace zelta {

/// A record is measured by its own lengths and the end of the file.
Result readCommittedVersion(Table& table, const TableHeader_tag& header, std::uint64_t objectID,
                            ObjectBytes* object) {
  *object = {};
  ObjectSlot slot{};
  ZELTA_TRY(reportTable(table.metaData, table.cName(),
                        readSlotPosition(table.tableFile, header.slotBase, objectID, &slot)));
  const auto damaged = [&] {
    return reportDamagedTable(table.metaData, table.cName(), static_cast<std::int64_t>(objectID),
                              0);
  };
  if (slot.isFree() || slot.position < header.objectAreaStart ||
      slot.position >= header.endOfFile) {
    return damaged();
  }
  RecordReader reader = RecordReader::aside(table);
  const RecordRules rules{RecordRules::kUnknown, table.minimumObjectSize};
  const RecordFault fault =
      reader.fetch(objectID, slot.position, rules, header.defaultObjectSize, object);
  if (fault.is(RecordFault::Kind::placeholder)) return {};
  return fault.is(RecordFault::Kind::otherObject) ? damaged() : reader.report(fault);
}

Result VersionReader::readBefore(std::uint64_t objectID, ObjectBytes* object) {
  return readCommittedVersion(manager_.table, header_, objectID, object);
}

Result VersionReader::readAfter(std::uint64_t objectID, ObjectBytes* object) {
  *object = {};
  PendingObject pending;
  bool found = false;
  ZELTA_TRY(findPendingObject(manager_, objectID, &pending, &found));
  if (!found || pending.transaction != manager_.metaData.transactionWord) {
    return reportError(&manager_.metaData, Own::objectNotFound, manager_.table.cName(), nullptr,
                       static_cast<std::int64_t>(objectID));
  }
  object->length = pending.length;
  return images_.read(pending.position + 4, pending.length, &object->data);
}

}  // namespace zelta
