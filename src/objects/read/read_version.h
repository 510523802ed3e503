// Reading the version of an object that counts for the running transaction: its own pending one if
// there is one, else the committed one. locate.h has found out where they lie. Lengths are checked
// against the end of the file before memory is taken for them.

#ifndef ZELTA_OBJECTS_READ_READ_VERSION_H
#define ZELTA_OBJECTS_READ_READ_VERSION_H

#include <cstdint>

#include "objects/read/locate.h"
#include "objects/table_access.h"
#include "schema/record_reader.h"

namespace zelta {

/// Reads this transaction's version of an object, the pending one if there is one, into the table's
/// buffer, which holds no object after a failure, or still the old one if a pending version cannot
/// be where its entry in the object map says. A pending version needs the memory file open. A
/// placeholder is own code 55, here and below.
Result readVersion(TableAccess& access, const Located& found);

/// The same into a buffer of the handle. The bytes are good until the next object is read aside.
Result readVersionAside(TableAccess& access, const Located& found, ObjectBytes* object);

/// Reads a committed object whose record was found at a position, aside likewise. Nobody vouches
/// for the position.
Result readCommittedAside(const Table& table, std::uint64_t objectID, std::uint64_t position,
                          ObjectBytes* object);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_READ_READ_VERSION_H
