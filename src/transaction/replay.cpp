#include "transaction/replay.h"

#include <cstring>

#include "schema/table_lifecycle.h"
#include "transaction/log_section.h"
#include "transaction/replay_schema.h"
#include "transaction/replay_table.h"

namespace zelta {

namespace {

Result replayTable(MetaData& metaData, UInt32AVLTree*& tables, const ReplayedEntry& entry,
                   EntryReader& reader, const LogTableSection_tag& head) {
  const Result opened = openTable(metaData, tables, head.tableId);
  if (opened.is(Own::tableNotFound)) clearError(metaData);
  if (opened.failed() && !opened.is(Own::tableNotFound)) return opened;
  Table* table = findTable(tables, head.tableId);
  TableSection section;
  ZELTA_TRY(readTableSection(reader, head, table == nullptr ? 0 : table->idSize(), section));
  if (table == nullptr) return {};  // removed by a later change
  return replayTableSection(metaData, *table, entry, reader, section);
}

Result replaySections(MetaData& metaData, UInt32AVLTree*& tables, const ReplayedEntry& entry) {
  EntryReader reader(metaData, entry.file, entry.head, entry.position);
  for (std::uint32_t i = 0; i < entry.head.sectionCount; ++i) {
    static_assert(sizeof(LogTableSection_tag) == sizeof(LogSchemaSection_tag));
    const char* bytes = nullptr;
    ZELTA_TRY(reader.take(sizeof(LogTableSection_tag), &bytes));
    LogTableSection_tag section;
    std::memcpy(&section, bytes, sizeof section);
    if (std::memcmp(section.magic, "ZELD", 4) == 0) {
      ZELTA_TRY(replayTable(metaData, tables, entry, reader, section));
      continue;
    }
    if (std::memcmp(section.magic, "ZELS", 4) != 0) {
      return reportError(&metaData, Own::unclassified, metaData.baseName.c_str(), extension::kLog,
                         static_cast<std::int64_t>(reader.position()));
    }
    LogSchemaSection_tag change;
    std::memcpy(&change, &section, sizeof change);
    ZELTA_TRY(replaySchemaSection(metaData, tables, reader, change));
  }
  return {};
}

}  // namespace

Result replayLogEntry(MetaData& metaData, UInt32AVLTree*& tables, platform::File file,
                      const LogEntryHead_tag& head, std::uint64_t position) {
  const Result result = replaySections(metaData, tables, {file, head, position});
  if (!result.is(Own::logEntry)) return result;
  return reportError(&metaData, Own::logEntry, metaData.baseName.c_str(), extension::kLog,
                     head.number, static_cast<std::int64_t>(position));
}

}  // namespace zelta
