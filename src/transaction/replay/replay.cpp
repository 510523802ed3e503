#include "transaction/replay/replay.h"

#include <bit>

#include "schema/table_lifecycle.h"
#include "transaction/log/log_entries.h"
#include "transaction/replay/replay_schema.h"
#include "transaction/replay/replay_table.h"

namespace zelta {

namespace {

/// A section of edits. A table that is gone has nothing to take over.
Result replayTable(const ReplayedEntry& replayed, EntryReader& reader, UInt32AVLTree*& tables,
                   const LogTableSection_tag& head) {
  MetaData& metaData = replayed.log.metaData();
  const Result opened = openTable({metaData, tables}, head.tableId);
  if (opened.is(Own::tableNotFound)) clearError(metaData);
  if (opened.failed() && !opened.is(Own::tableNotFound)) return opened;
  Table* table = findTable(tables, head.tableId);
  TableSection section;
  ZELTA_TRY(readTableSection(reader, head, table == nullptr ? 0 : table->idSize(), section));
  if (table == nullptr) return {};  // removed by a later change
  return replayTableSection(replayed, reader, *table, section);
}

/// In the order of the entry, which is that in which the commit wrote them.
Result replaySections(const ReplayedEntry& replayed, UInt32AVLTree*& tables) {
  MetaData& metaData = replayed.log.metaData();
  EntryReader reader(replayed.log, replayed.entry);
  for (;;) {
    LogTableSection_tag section;
    bool found = false;
    ZELTA_TRY(reader.nextSection(&section, &found));
    if (!found) return {};
    if (section.isTableEdit()) {
      ZELTA_TRY(replayTable(replayed, reader, tables, section));
    } else if (section.isSchemaChange()) {
      const auto change = std::bit_cast<LogSchemaSection_tag>(section);
      ZELTA_TRY(replaySchemaSection({metaData, tables}, reader, change));
    } else {
      return reportError(&metaData, Own::unclassified, metaData.baseName.c_str(), extension::kLog,
                         static_cast<std::int64_t>(reader.position()));
    }
  }
}

}  // namespace

Result replayLogEntry(LogFile& log, const LogEntry& entry, UInt32AVLTree*& tables) {
  const Result result = replaySections({log, entry}, tables);
  if (!result.is(Own::logEntry)) return result;
  MetaData& metaData = log.metaData();
  return reportError(&metaData, Own::logEntry, metaData.baseName.c_str(), extension::kLog,
                     entry.head.number, static_cast<std::int64_t>(entry.position));
}

}  // namespace zelta
