// A schema with something wrong in it, or at least unusual.

#ifndef ZELTA_TESTS_FUZZ_BAD_SCHEMA_H
#define ZELTA_TESTS_FUZZ_BAD_SCHEMA_H

#include "fuzz/schemas.h"
#include "fuzz/steering.h"

namespace zelta::fuzz {

/// Changes a few members; counts never exceed the records that there are.
void spoil(FormSchema& form, Steering& steering);

}  // namespace zelta::fuzz

#endif  // ZELTA_TESTS_FUZZ_BAD_SCHEMA_H
