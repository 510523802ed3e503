// Tables for tests of keys, and keys as strings of bytes.

#ifndef ZELTA_TESTS_INDEX_KEY_BENCH_H
#define ZELTA_TESTS_INDEX_KEY_BENCH_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "index/keys/keys.h"
#include "objects/current_keys.h"
#include "support/buffer_table.h"

namespace zelta::testing {

class KeyBench : public BufferTable {
 public:
  using BufferTable::BufferTable;

  /// The payload of a key, as the string of bytes that it orders by.
  [[nodiscard]] std::string payload(const std::uint32_t* key, std::uint32_t index = 0) const {
    const KeyShape shape = table.keyShape(index);
    const std::uint32_t first = shape.variable() ? 1 : 0;
    const std::uint32_t end = shape.variable() ? key[0] : table.index(index).keyWords;
    std::string bytes;
    for (std::uint32_t i = first; i < end; ++i) {
      for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(key[i] >> shift);
    }
    return bytes;
  }
  /// Makes a key of an object that lies in an allocation of just its size.
  Result make(const std::string& object, PooledKey& key, std::uint32_t index = 0,
              std::uint32_t entry = 0) {
    const std::vector<char> exact(object.begin(), object.end());
    std::uint32_t* made = nullptr;
    const Result result = extractKey(
        table, index, {{exact.data(), static_cast<std::uint32_t>(exact.size())}, entry}, &made);
    key.take(table.keyPool(index), table.keyShape(index), made);
    return result;
  }
  /// The payload in hexadecimal digits; "none" without a key, else the failure's code.
  std::string hex(const std::string& object, std::uint32_t index = 0, std::uint32_t entry = 0) {
    PooledKey key;
    const Result result = make(object, key, index, entry);
    if (result.failed()) return std::to_string(result.code());
    return key.get() == nullptr ? "none" : digits(payload(key.get(), index));
  }
  std::string searchHex(const std::string& image, std::uint32_t index = 0) {
    const std::vector<char> exact(image.begin(), image.end());
    std::uint32_t* made = nullptr;
    const Result result = buildSearchKey(table, index, exact.data(), &made);
    PooledKey key;
    key.take(table.keyPool(index), table.keyShape(index), made);
    if (result.failed()) return std::to_string(result.code());
    return key.get() == nullptr ? "none" : digits(payload(key.get(), index));
  }
  static std::string digits(const std::string& bytes) {
    std::string out;
    for (const char c : bytes) {
      const auto byte = static_cast<unsigned char>(c);
      out += "0123456789ABCDEF"[byte >> 4];
      out += "0123456789ABCDEF"[byte & 15];
    }
    return out;
  }
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_INDEX_KEY_BENCH_H
