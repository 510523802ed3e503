// A reader of control files that knows their bytes and shares nothing with the engine.

#ifndef ZELTA_TESTS_SUPPORT_RAW_CONTROL_H
#define ZELTA_TESTS_SUPPORT_RAW_CONTROL_H

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "support/storage_fixture.h"

namespace zelta::testing {

struct RawEntry {
  std::uint32_t id;
  std::uint32_t order;
  std::string name;       ///< ASCII
  std::string indexPath;  ///< ASCII
};

/// Reads a control file at rest and checks all that must agree in it.
struct RawControl {
  explicit RawControl(const std::string& bytes) {
    EXPECT_EQ(bytes.substr(0, 8), std::string("ZELC\1\0\2\0", 8));
    tableCount = numberAt<std::uint32_t>(bytes, 8);
    units = numberAt<std::uint32_t>(bytes, 12);
    end = numberAt<std::uint32_t>(bytes, 16);
    EXPECT_EQ(end, 76 + 2 * units + 8 * tableCount);
    EXPECT_LE(end, bytes.size());
    lastTransaction = numberAt<std::uint32_t>(bytes, 32);
    state = numberAt<std::uint32_t>(bytes, 36);
    pending = bytes.substr(40, 36) != std::string(36, '\0');
    if (end > bytes.size()) return;
    std::uint64_t at = 76;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> records;
    while (at < 76 + 2 * units) {
      const auto id = numberAt<std::uint32_t>(bytes, at);
      records.emplace_back(id, static_cast<std::uint32_t>((at - 76) / 2));
      const auto order = numberAt<std::uint32_t>(bytes, at + 4);
      at += 8;
      std::string name = text(bytes, at);
      std::string path = text(bytes, at);
      entries.push_back({id, order, std::move(name), std::move(path)});
    }
    EXPECT_EQ(entries.size(), tableCount);
    std::sort(records.begin(), records.end());
    for (std::size_t i = 0; i < records.size(); ++i) {
      const std::uint64_t record = 76 + 2 * units + 8 * i;
      EXPECT_EQ(numberAt<std::uint32_t>(bytes, record), records[i].first);
      EXPECT_EQ(numberAt<std::uint32_t>(bytes, record + 4), records[i].second);
    }
    for (at = end; at + 8 <= bytes.size(); at += 8) {
      slots.emplace_back(numberAt<std::uint32_t>(bytes, at),
                         numberAt<std::uint32_t>(bytes, at + 4));
    }
    EXPECT_EQ((bytes.size() - end) % 8, 0u);
  }

  std::uint32_t tableCount = 0;
  std::uint32_t units = 0;
  std::uint32_t end = 0;
  std::uint32_t lastTransaction = 0;
  std::uint32_t state = 0;
  bool pending = false;
  std::vector<RawEntry> entries;
  std::vector<std::pair<std::uint32_t, std::uint32_t>> slots;

 private:
  static std::string text(const std::string& bytes, std::uint64_t& at) {
    std::string out;
    for (; at + 2 <= bytes.size(); at += 2) {
      const auto unit = numberAt<std::uint16_t>(bytes, at);
      if (unit == 0) break;
      out += static_cast<char>(unit);
    }
    at += 2;
    return out;
  }
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SUPPORT_RAW_CONTROL_H
