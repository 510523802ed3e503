// How a target tells that it has found something.

#ifndef ZELTA_TESTS_FUZZ_FOUND_H
#define ZELTA_TESTS_FUZZ_FOUND_H

#include <cstdio>
#include <cstdlib>
#include <string>

namespace zelta::fuzz {

[[noreturn]] inline void found(const std::string& what) {
  std::fprintf(stderr, "found: %s\n", what.c_str());
  std::abort();
}

inline void expect(bool good, const char* what) {
  if (!good) found(what);
}

}  // namespace zelta::fuzz

#endif  // ZELTA_TESTS_FUZZ_FOUND_H
