// Databases in a fresh folder, used through the exported class, and processes beside the test's
// own.

#ifndef ZELTA_TESTS_SUPPORT_DATABASE_FIXTURE_H
#define ZELTA_TESTS_SUPPORT_DATABASE_FIXTURE_H

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "czelta.h"
#include "support/changing_calls.h"
#include "support/child_process.h"
#include "support/storage_fixture.h"

namespace zelta::testing {

constexpr unsigned long long ownCode(unsigned int code) { return 0x1'0000'0000u + code; }
constexpr unsigned long long systemCode(unsigned int code) { return 0x2'0000'0000u + code; }

/// ASCII of a 16-bit text, '?' for all else.
inline std::string plainText(const char16_t* text) {
  std::string out;
  for (; *text != 0; ++text) out += *text < 0x80 ? static_cast<char>(*text) : '?';
  return out;
}

/// The pending failure text.
inline std::string messageOf(CZELTA& handle) {
  const char16_t* text = nullptr;
  EXPECT_EQ(handle.GetErrorMessage(&text), 0u);
  return plainText(text);
}

#define ASSERT_DONE(handle, expression) \
  ASSERT_EQ((expression), 0u) << ::zelta::testing::messageOf(handle)
#define EXPECT_DONE(handle, expression) \
  EXPECT_EQ((expression), 0u) << ::zelta::testing::messageOf(handle)

/// A table of one number field, with a unique index on it.
struct SmallSchema {
  explicit SmallSchema(const char16_t* name, unsigned int id = 0, unsigned int order = 0) {
    schema.tableName = name;
    schema.tableId = id;
    schema.lockOrder = order;
    schema.fieldCount = 1;
    schema.fields = &field;
    schema.indexCount = 1;
    schema.indexes = &index;
  }
  SmallSchema(const SmallSchema&) = delete;
  SmallSchema& operator=(const SmallSchema&) = delete;
  CZELTA::Schema::Field field{CZELTA::TypeUInt32, 0, 0, 0, u"number", nullptr};
  CZELTA::Schema::Segment segment{0, 0};
  CZELTA::Schema::Index index{0, CZELTA::BPlusTree, 1, {0}, &segment};
  CZELTA::Schema schema{};
};

/// Kills the process at the n-th changing call (write, truncate, flush, remove, rename), counted
/// from 0, before it acts; a write may be cut in the middle instead, unless it is as short as the
/// header of a control file: such a write lies in one sector, which is written whole or not.
class DieAt : public platform::faults::Hook {
 public:
  explicit DieAt(std::uint64_t calls, bool cut = false) : left_(calls), cut_(cut) {
    platform::faults::install(this);
  }
  ~DieAt() override { platform::faults::install(nullptr); }
  platform::faults::Verdict before(const platform::faults::Event& event) override {
    using platform::faults::Call;
    platform::faults::Verdict verdict;
    if (!changesFiles(event.call) || left_-- != 0) return verdict;
    verdict.die = true;
    constexpr std::uint64_t kWhole = 76;
    if (cut_ && event.call == Call::write && event.length > kWhole) {
      verdict.cutTo = event.length / 2;
    }
    return verdict;
  }

 private:
  std::uint64_t left_;
  bool cut_;
};

/// A folder for a database named "shop", and its control file's bytes as they stand on disk.
class DatabaseTest : public ::testing::Test {
 protected:
  [[nodiscard]] std::u16string path() const { return folder.file("shop.zlc"); }
  [[nodiscard]] std::string control() const { return folder.bytes("shop.zlc"); }
  [[nodiscard]] std::uint32_t word(std::uint64_t offset) const {
    return numberAt<std::uint32_t>(control(), offset);
  }
  [[nodiscard]] std::uint16_t half(std::uint64_t offset) const {
    return numberAt<std::uint16_t>(control(), offset);
  }
  /// Puts bytes into the control file, which no handle has open.
  void patch(std::uint64_t offset, const std::string& bytes) const {
    std::string all = control();
    if (all.size() < offset + bytes.size()) all.resize(offset + bytes.size());
    all.replace(offset, bytes.size(), bytes);
    folder.write("shop.zlc", all);
  }
  static std::string words(std::initializer_list<std::uint32_t> values) {
    std::string out;
    for (const std::uint32_t value : values) out.append(reinterpret_cast<const char*>(&value), 4);
    return out;
  }
  /// Makes a table in an exclusive transaction of its own.
  static void makeTable(CZELTA& handle, const char16_t* name, unsigned int id = 0,
                        unsigned int order = 0) {
    SmallSchema small(name, id, order);
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 10000));
    ASSERT_DONE(handle, handle.CreateTable(&small.schema, nullptr));
    ASSERT_DONE(handle, handle.EndTransaction());
  }
  /// A database with one table and no handle.
  void makeShop() const {
    CZELTA handle;
    ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
    makeTable(handle, u"goods");
  }

  FreshFolder folder;
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SUPPORT_DATABASE_FIXTURE_H
