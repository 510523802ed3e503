// The encoding of objects: fixed fields by their place, variable ones by their own lengths, which
// must lead exactly to the object's end.

#ifndef ZELTA_CHECK_CHECK_OBJECT_H
#define ZELTA_CHECK_CHECK_OBJECT_H

#include <cstdint>
#include <optional>
#include <string>

#include "czelta.h"

namespace zelta::check {

/// What all objects of a table have in common.
struct ObjectForm {
  const CZELTA::Schema* schema;
  std::uint32_t headerSize;
  std::uint32_t fixedAreaSize;
};

/// The first thing that is wrong.
struct ObjectFault {
  std::uint64_t offset;  ///< in the object
  std::string what;
};

/// Nothing if the bytes behind version and ID are those of an object of the table.
[[nodiscard]] std::optional<ObjectFault> findFault(const ObjectForm& form, const char* object,
                                                   std::uint64_t length);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_OBJECT_H
