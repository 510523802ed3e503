// The inner side of table_file.h: finishing a commit that was cut off, and what commit shares with
// it. transaction/commit/plan_execution.h is the writer whose death is dealt with here; both use
// the same functions for the same step, so that doing it again gives the same bytes.

#ifndef ZELTA_STORAGE_TABLE_FILE_TABLE_RECOVERY_H
#define ZELTA_STORAGE_TABLE_FILE_TABLE_RECOVERY_H

#include "storage/table_file/table_file.h"

namespace zelta {

/// Finishes the commit whose intent stands in `header`, or forgets it if its journal is incomplete.
/// The caller owns the table's mutex and may write. `header` is at rest after a success. A death in
/// here leaves what can be repaired again.
Result recoverTableCommit(MetaData& metaData, const char16_t* tableName, platform::File file,
                          TableHeader_tag& header);

/// Zeroes the slots above `highestID`, up to `end`.
Result zeroSlots(MetaData& metaData, const char16_t* tableName, platform::File file,
                 std::uint32_t slotBase, std::uint64_t highestID, std::uint64_t end);

/// Bytes 104 to 167, which the journal's checksum begins with.
[[nodiscard]] const char* summedPart(const TableHeader_tag& header);
inline constexpr std::uint32_t kSummedPart = 64;

}  // namespace zelta

#endif  // ZELTA_STORAGE_TABLE_FILE_TABLE_RECOVERY_H
