// Commits that are decided and not carried out yet.

#ifndef ZELTA_TRANSACTION_DECIDED_COMMIT_H
#define ZELTA_TRANSACTION_DECIDED_COMMIT_H

#include <cstdint>

#include "frame/metadata.h"

namespace zelta {

class Table;

/// The number of another transaction that has a slot and whose last entry in the log is complete
/// and brings an object of this ID to the table; 0: none is found. Once such an entry stands, a
/// table may lack what its index has already. What cannot be read proves nothing. No table's mutex
/// may be held.
[[nodiscard]] std::uint32_t findDecidedCommit(MetaData& metaData, const Table& table,
                                              std::uint64_t objectID);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_DECIDED_COMMIT_H
