// Keys of objects: how an index's segments become words that compare as the values do.
//
// A key is a number of 32-bit words that are compared as unsigned numbers, the first one first. A
// fixed key has as many as its index says, a variable one states how many in its first word. The
// payload behind that is a string of bytes, most significant first in each word: what each segment
// gives, in their order, zeros up to a whole word. Signed numbers have their sign bit turned over,
// floating point as writeFloat() says, texts as key_text.h does; a descending segment has all its
// bits turned over. Keys of boxes and time spans are their numbers as they are.

#ifndef ZELTA_INDEX_KEYS_KEYS_H
#define ZELTA_INDEX_KEYS_KEYS_H

#include <cstdint>

#include "frame/metadata.h"
#include "schema/object_view.h"
#include "schema/record_reader.h"
#include "storage/table.h"

namespace zelta {

/// Which entry of which object a key is made of.
struct KeySource {
  ObjectBytes object;  ///< none: the one in the table's buffer
  std::uint32_t entry = 0;
  /// For whoever asks for entry after entry of one object: without it each is looked for from the
  /// object's beginning.
  RowPlaces* rows = nullptr;
};

/// Makes the key of an object in an index (from 0). `*keyOut` receives a key from the index's pool,
/// or null if the object has no such entry. Own code 39: the object is too short to be one, or the
/// index has no keys. System code 122: the key has no room in a fixed index. The key goes back to
/// the pool when the caller is done with it (PooledKey).
Result extractKey(Table& table, std::uint32_t index, const KeySource& from, std::uint32_t** keyOut);

/// Makes the key to look for from the values of an index's segments, as the caller of a read or a
/// search packs them: one behind the other, texts with their terminators. The caller vouches for
/// the image's length. `*keyOut` receives a key from the index's pool.
Result buildSearchKey(Table& table, std::uint32_t index, const void* image, std::uint32_t** keyOut);

}  // namespace zelta

#endif  // ZELTA_INDEX_KEYS_KEYS_H
