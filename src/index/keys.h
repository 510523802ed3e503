// Keys of objects: how an index's segments become words that compare as the values do.

#ifndef ZELTA_INDEX_KEYS_H
#define ZELTA_INDEX_KEYS_H

#include <cstdint>

#include "frame/metadata.h"
#include "schema/object_view.h"
#include "storage/table.h"

namespace zelta {

/// Makes the key of entry `entry` of an object in an index (from 0). `object` null means the one in
/// the table's buffer. `*keyOut` receives a key from the index's pool, or null if the object has no
/// such entry. Whoever asks for entry after entry of one object passes `rows` along, or each will
/// be looked for from the object's beginning.
Result extractKey(MetaData& metaData, Table& table, std::uint32_t index, std::uint32_t entry,
                  std::uint32_t** keyOut, const char* object, std::uint32_t objectSize,
                  RowPlaces* rows = nullptr);

/// Makes the key to look for from the values of an index's segments, as the caller of a read or a
/// search packs them. `*keyOut` receives a key from the index's pool.
Result buildSearchKey(MetaData& metaData, Table& table, std::uint32_t index, const void* image,
                      std::uint32_t** keyOut);

}  // namespace zelta

#endif  // ZELTA_INDEX_KEYS_H
