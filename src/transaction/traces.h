// What a transaction leaves in memory files.

#ifndef ZELTA_TRANSACTION_TRACES_H
#define ZELTA_TRANSACTION_TRACES_H

#include "storage/table.h"

namespace zelta {

class AtomicManager;
struct MemoryFileHeader_tag;

/// Takes the pending keys of the objects in two sets out of all trees of the memory file. The pages
/// are flushed by whoever removes the objects.
Result dropPendingKeys(MetaData& metaData, Table& table, AtomicManager& manager,
                       const MemoryFileHeader_tag& header, UInt64AVLTree* first,
                       UInt64AVLTree* second);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_TRACES_H
