// Reading objects into a table's buffer: the operation that all walks are made of.

#ifndef ZELTA_OBJECTS_READ_READ_OBJECT_H
#define ZELTA_OBJECTS_READ_READ_OBJECT_H

#include <cstdint>

#include "czelta.h"
#include "objects/read/read_request.h"

namespace zelta {

/// Reads the object that a query means, locks it unless the mode has ReadNoLock or the transaction
/// cannot write, and makes it the current one. The caller has made sure of a transaction, its
/// thread and the table. Own code 32: there is no such object; 27 or 67: it stayed locked for too
/// long. `object`, which is filled, and `entry`, which receives the number of the entry whose key
/// matched, may be null.
Result readObject(const Session& session, Table& table, const ObjectQuery& query,
                  CZELTA::Object* object, std::uint32_t* entry);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_READ_READ_OBJECT_H
