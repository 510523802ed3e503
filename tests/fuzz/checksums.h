// Makes the checksums of a database's files right again behind a mutation, so that what was mutated
// is believed.

#ifndef ZELTA_TESTS_FUZZ_CHECKSUMS_H
#define ZELTA_TESTS_FUZZ_CHECKSUMS_H

#include "fuzz/archive.h"

namespace zelta::fuzz {

/// The checksums of all intents that stand, with their journals, and of all entries in logs, where
/// the bytes that they cover are there.
void mendChecksums(Archive& archive);

}  // namespace zelta::fuzz

#endif  // ZELTA_TESTS_FUZZ_CHECKSUMS_H
