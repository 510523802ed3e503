// Bringing an object's bytes from the files into memory.

#ifndef ZELTA_OBJECTS_READ_BYTES_H
#define ZELTA_OBJECTS_READ_BYTES_H

#include <cstdint>

#include "czelta.h"
#include "objects/locate.h"

namespace zelta {

/// Reads a committed object into the table's buffer, as a rule in one piece. A placeholder is own
/// code 55, here and below.
Result readCommittedObject(MetaData& metaData, Table& table, const TableHeader_tag& header,
                           std::uint64_t objectID, std::uint64_t position);

/// Reads this transaction's pending version into the table's buffer.
Result readPendingObject(MetaData& metaData, Table& table, const AtomicManager& manager,
                         const Located& found);

/// Reads this transaction's version of an object, the pending one if there is one, into the scratch
/// buffer for second versions.
Result readVersionAside(MetaData& metaData, Table& table, const AtomicManager& manager,
                        const Located& found, ObjectBytes* object);

/// Reads a committed object into the scratch buffer for second versions.
Result readCommittedAside(MetaData& metaData, Table& table, std::uint64_t position,
                          std::uint32_t* length);

/// Takes the number of a transaction that is gone out of an object's slot.
Result eraseSlotTransaction(MetaData& metaData, Table& table, std::uint32_t slotBase,
                            std::uint64_t objectID);

/// Takes all that a transaction that is gone has in the memory file out of it: keys and objects.
Result dropTransactionEntries(MetaData& metaData, Table& table, ReadFiles& files,
                              std::uint32_t number);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_READ_BYTES_H
