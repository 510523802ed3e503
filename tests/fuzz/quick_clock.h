// The clock of the fuzzing targets, see quick_clock.cpp.

#ifndef ZELTA_TESTS_FUZZ_QUICK_CLOCK_H
#define ZELTA_TESTS_FUZZ_QUICK_CLOCK_H

namespace zelta::fuzz {

void beginInput();
/// Each operation of the library may wait for as long as it promises.
void beginOperation();

}  // namespace zelta::fuzz

#endif  // ZELTA_TESTS_FUZZ_QUICK_CLOCK_H
