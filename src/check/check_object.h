// The encoding of objects.

#ifndef ZELTA_CHECK_CHECK_OBJECT_H
#define ZELTA_CHECK_CHECK_OBJECT_H

#include <cstdint>
#include <optional>
#include <string>

#include "czelta.h"

namespace zelta::check {

struct ObjectForm {
  const CZELTA::Schema* schema;
  std::uint32_t headerSize;
  std::uint32_t fixedAreaSize;
};

struct ObjectFault {
  std::uint64_t offset;  ///< in the object
  std::string what;
};

/// Nothing if the bytes behind version and ID are those of an object of the table.
[[nodiscard]] std::optional<ObjectFault> findFault(const ObjectForm& form, const char* object,
                                                   std::uint64_t length);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_OBJECT_H
