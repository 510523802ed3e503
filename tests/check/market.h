// A database of several tables of all shapes, and a writer that changes single places of its files.

#ifndef ZELTA_TESTS_CHECK_MARKET_H
#define ZELTA_TESTS_CHECK_MARKET_H

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/buffer_table.h"
#include "support/check_database.h"
#include "support/database_fixture.h"

namespace zelta::testing {

/// Tables of a database "shop": 1 "bare" has no index, 2 "fixed" two indexes of fixed keys, 3
/// "texts" variable fields, rows and indexes of all modes, 4 "wide" IDs of 64 bits.
class Market : public DatabaseTest {
 protected:
  static constexpr unsigned kBare = 1;
  static constexpr unsigned kFixed = 2;
  static constexpr unsigned kTexts = 3;
  static constexpr unsigned kWide = 4;

  void makeTables() {
    CZELTA handle;
    ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 10000));
    const Segments number = {{0, 0}};
    const Segments descending = {{1, CZELTA::SegmentDescending}, {CZELTA::ObjectIdSegment, 0}};
    const Fields numbers = {{CZELTA::TypeInt32}, {CZELTA::TypeDouble}};
    make(handle, u"bare", numbers, {}, 0);
    make(handle, u"fixed", numbers, {{number}, {descending}}, 0);
    // The sub-fields have the field IDs behind those of the table's fields.
    const Fields texts = {
        {CZELTA::TypeUInt32},
        {CZELTA::TypeText, 20},
        {CZELTA::TypeWideText, 30},
        {CZELTA::TypeSubRecords, 40, {{CZELTA::TypeUInt16}, {CZELTA::TypeText, 9}}},
        {CZELTA::TypeBinary, 8}};
    const Segments rows = {{5, 0}, {CZELTA::ObjectIdSegment, 0}, {CZELTA::EntryNumberSegment, 0}};
    const Segments words = {{6, CZELTA::SegmentUpperCase},
                            {CZELTA::ObjectIdSegment, 0},
                            {CZELTA::EntryNumberSegment, 0}};
    const Segments folded = {{2, CZELTA::SegmentLowerCase}, {CZELTA::ObjectIdSegment, 0}};
    make(handle, u"texts", texts, {{Segments{{1, 0}}}, {folded}, {rows}, {words}}, 0);
    make(handle, u"wide", {{CZELTA::TypeUInt64}, {CZELTA::TypeText, 10}},
         {{number}, {Segments{{1, CZELTA::SegmentDescending}, {CZELTA::ObjectIdSegment, 0}}}},
         CZELTA::SchemaWideObjectIds);
    ASSERT_DONE(handle, handle.EndTransaction());
  }

  /// Puts `count` objects into each table.
  void fill(std::uint32_t count) {
    CZELTA handle;
    ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 10000));
    for (unsigned table = kBare; table <= kWide; ++table) {
      ASSERT_DONE(handle, handle.OpenTable(table));
      for (std::uint32_t i = 0; i < count; ++i) add(handle, table, i * 7919 % 10007);
    }
    ASSERT_DONE(handle, handle.CommitTransaction(true));
    ASSERT_DONE(handle, handle.EndTransaction());
  }

  static void add(CZELTA& handle, unsigned table, std::uint32_t number) {
    CZELTA::Object object{};
    ASSERT_DONE(handle, handle.NewObject(table, &object, 0));
    const double half = number / 2.0 - 100;
    const std::uint64_t wide = number * 0x100000007;
    switch (table) {
      case kBare:
      case kFixed:
        std::memcpy(object.data, &number, 4);
        std::memcpy(static_cast<char*>(object.data) + object.length - 8, &half, 8);
        break;
      case kWide:
        std::memcpy(object.data, &wide, 8);
        break;
      default:
        std::memcpy(object.data, &number, 4);
    }
    const std::string values = table == kTexts  ? textValues(number)
                               : table == kWide ? Packed().text(std::to_string(number)).str()
                                                : "";
    if (!values.empty()) {
      ASSERT_DONE(handle, handle.PutVariableValues(table, values.data(),
                                                   static_cast<unsigned>(values.size()), 0,
                                                   table == kTexts ? 4 : 1, &object));
    }
    ASSERT_DONE(handle, handle.AddObject(table, &object, 0));
  }

  /// The finding at a place of a file; null if there is none.
  static const CheckFinding* findingAt(const std::vector<CheckFinding>& findings,
                                       const std::string& file, std::uint64_t offset) {
    const auto found = std::find_if(findings.begin(), findings.end(), [&](const CheckFinding& f) {
      return f.offset == offset && f.file.size() > file.size() &&
             f.file.compare(f.file.size() - file.size(), file.size(), file) == 0;
    });
    return found == findings.end() ? nullptr : &*found;
  }
  [[nodiscard]] std::vector<CheckFinding> findings() const {
    CheckOptions options;
    options.remains = true;
    return checkDatabase(path(), options);
  }

 private:
  static void make(CZELTA& handle, const char16_t* name, const Fields& fields,
                   const Indexes& indexes, std::uint32_t flags) {
    const SchemaRecords records(fields, indexes, flags, name);
    ASSERT_DONE(handle, handle.CreateTable(&records.schema, nullptr));
  }
  /// A unique text, a text in mixed case, up to three rows, a binary.
  static std::string textValues(std::uint32_t number) {
    Packed rows;
    for (std::uint32_t row = 0; row < number % 4; ++row) {
      rows.number(static_cast<std::uint16_t>(number + row)).text("Row " + std::to_string(row));
    }
    const std::string name = "name " + std::to_string(number) + std::string(number % 50, 'x');
    return Packed()
        .text(name)
        .wide(number % 3 == 0 ? u"" : u"Mixed Case")
        .binary(rows)
        .binary(std::string(number % 9, '\1'));
  }
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_CHECK_MARKET_H
