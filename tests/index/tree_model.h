// Forms of trees that are held against a map, and their random keys.

#ifndef ZELTA_TESTS_INDEX_TREE_MODEL_H
#define ZELTA_TESTS_INDEX_TREE_MODEL_H

#include <gtest/gtest.h>

#include <random>

#include "support/tree_bench.h"

namespace zelta::testing {

/// Numbers of 32 bits.
class Random {
 public:
  explicit Random(unsigned seed) : engine_(seed) {}
  std::uint32_t operator()() { return static_cast<std::uint32_t>(engine_()); }

 private:
  std::mt19937 engine_;
};

struct ModelCase {
  TreeForm form;
  std::uint32_t range;
  const char* name;
};

inline constexpr ModelCase kModelCases[] = {
    {{false, false, 1, 256, PageFile::memory}, 900, "fixed"},
    {{false, true, 3, 128, PageFile::memory}, 900, "fixedWide"},
    {{false, false, 2, 512, PageFile::index}, 3000, "fixedInIndexFile"},
    {{true, false, 3, 256, PageFile::memory}, 900, "variable"},
    {{true, true, 2, 128, PageFile::memory}, 900, "variableWide"},
    {{true, false, 40, 1024, PageFile::memory}, 3000, "variableRoomy"},
    {{true, false, 3, 256, PageFile::index}, 900, "variableInIndexFile"}};

class BPlusTreeModel : public ::testing::TestWithParam<ModelCase> {
 protected:
  Words randomKey(Random& random, const ModelCase& parameters) {
    const std::uint32_t value = random() % parameters.range;
    if (!parameters.form.variable) {
      Words key(parameters.form.keyWords, 0);
      key.front() = value % 7;
      key.back() = value;
      return key;
    }
    // Prefixes of each other, and now and then a giant.
    Random shape(value);
    std::uint32_t length = shape() % 6;
    if (shape() % 40 == 0) length = 60 + shape() % 200;
    Words key(length, 0);
    for (std::uint32_t& word : key)
      word = shape() % 3 == 0 ? 0xFFFFFFFF - shape() % 3 : shape() % 4;
    key.push_back(value);
    return key;
  }
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_INDEX_TREE_MODEL_H
