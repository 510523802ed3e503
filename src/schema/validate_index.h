// The rules of an index: kind, flags, and each segment with its field. Which flags and which length
// of key follow from them is derived here, for the library and the caller alike.

#ifndef ZELTA_SCHEMA_VALIDATE_INDEX_H
#define ZELTA_SCHEMA_VALIDATE_INDEX_H

#include "czelta.h"
#include "frame/metadata.h"

namespace zelta {

/// Tests index `i` of a schema whose fields are good, and derives its flags and key length.
Result validateIndex(MetaData& metaData, const CZELTA::Schema& schema, CZELTA::Schema::Index& index,
                     std::uint32_t i);

}  // namespace zelta

#endif  // ZELTA_SCHEMA_VALIDATE_INDEX_H
