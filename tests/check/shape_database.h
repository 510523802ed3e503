// A database with one table that has indexes of all kinds, with and without rows, whose trees have
// seen additions, rewrites and deletions.

#ifndef ZELTA_TESTS_CHECK_SHAPE_DATABASE_H
#define ZELTA_TESTS_CHECK_SHAPE_DATABASE_H

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "support/buffer_table.h"
#include "support/check_database.h"
#include "support/database_fixture.h"

namespace zelta::testing {

class ShapeDatabase : public DatabaseTest {
 protected:
  static constexpr unsigned kTable = 1;
  static constexpr const char* kIndexFile = "T.zli";
  enum Index : unsigned {
    kNumbers = 1,
    kBoxes,
    kSpans,
    kPoints,
    kRowBoxes,
    kRowPoints,
    kWords,
    kWideWords,
    kIndexes = 8
  };

  void makeTable(std::uint32_t flags) {
    const Fields fields = {
        {CZELTA::TypeUInt32},
        {CZELTA::TypeRect2},
        {CZELTA::TypeDateTime},
        {CZELTA::TypeDateTime},
        {CZELTA::TypeUInt16},
        {CZELTA::TypeText, 60},
        {CZELTA::TypeSubRecords, 60, {{CZELTA::TypeRect2}, {CZELTA::TypePoints2, 40}}},
        {CZELTA::TypePoints3, 40}};
    const Indexes indexes = {
        {{{0, 0}}, CZELTA::BPlusTree},
        {{{1, 0}}, CZELTA::SpatialTree},
        {{{2, 0}, {3, 0}}, CZELTA::TemporalTree},
        {{{7, 0}}, CZELTA::SpatialPattern},
        {{{8, 0}}, CZELTA::SpatialTree},
        {{{9, 0}}, CZELTA::SpatialPattern},
        {{{5, CZELTA::SegmentWords}}, CZELTA::AsciiList},
        {{{4, 0}, {5, CZELTA::SegmentWords | CZELTA::SegmentUpperCase}}, CZELTA::WideList}};
    SchemaRecords records(fields, indexes, flags);
    records.schema.tableId = kTable;
    CZELTA handle;
    ASSERT_DONE(handle, handle.CreateDatabase(path().c_str()));
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
    ASSERT_DONE(handle, handle.CreateTable(&records.schema, nullptr));
    ASSERT_DONE(handle, handle.EndTransaction());
  }
  static void enter(CZELTA& handle) {
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 10000));
    ASSERT_DONE(handle, handle.OpenTable(kTable));
  }

  /// A point in a field, which the number alone decides.
  static std::int32_t coordinate(std::uint32_t number, std::uint32_t salt) {
    return static_cast<std::int32_t>((number * 2654435761u + salt * 40503u) >> 22) - 512;
  }
  static std::string fixedBytes(std::uint32_t number) {
    Packed out;
    out.number(number);
    const std::int32_t x = coordinate(number, 1);
    const std::int32_t y = coordinate(number, 2);
    out.number(x).number(y).number(x + 20).number(y + 5);
    const std::uint64_t begin = number * std::uint64_t{37} % 5000;
    out.number(begin).number(begin + number % 9);
    return out.number(static_cast<std::uint16_t>(number % 3));
  }
  static std::string points(std::uint32_t number, std::uint32_t count, std::uint32_t axes) {
    Packed all;
    for (std::uint32_t i = 0; i < count * axes; ++i) all.number(coordinate(number / 2, i));
    return Packed().binary(all);
  }
  /// Words that all objects have, some have, and one has.
  static std::string text(std::uint32_t number) {
    return "all some" + std::to_string(number % 11) + " own" + std::to_string(number) + " " +
           std::string(number % 40, 'x');
  }
  /// A text, and up to three rows, of which two may be equal.
  static std::string variableBytes(std::uint32_t number) {
    Packed rows;
    for (std::uint32_t row = 0; row < number % 4; ++row) {
      const std::int32_t x = coordinate(number, row / 2);
      rows.number(x).number(-x).number(x + 3).number(x);
      rows.raw(points(number + row / 2, number % 3, 2));
    }
    return Packed().text(text(number)).binary(rows).raw(points(number, number % 5, 3));
  }
  static unsigned long long put(CZELTA& handle, std::uint32_t number, CZELTA::Object& object) {
    const std::string variable = variableBytes(number);
    const auto word = handle.PutVariableValues(
        kTable, variable.data(), static_cast<unsigned>(variable.size()), 0, 3, &object);
    const std::string fixed = fixedBytes(number);
    if (word == 0) std::memcpy(object.data, fixed.data(), fixed.size());
    return word;
  }
  static unsigned long long add(CZELTA& handle, std::uint32_t number) {
    CZELTA::Object object{};
    if (const auto word = handle.NewObject(kTable, &object, 0); word != 0) return word;
    if (const auto word = put(handle, number, object); word != 0) return word;
    return handle.AddObject(kTable, &object, 0);
  }
  static unsigned long long rewrite(CZELTA& handle, long long id, std::uint32_t number) {
    CZELTA::Object object{};
    if (const auto word = handle.ReadObject(kTable, id, &object); word != 0) return word;
    if (const auto word = put(handle, number, object); word != 0) return word;
    return handle.RewriteObject(kTable, &object);
  }

  /// Objects 1 to `count`, of which every seventh is deleted again and every fifth rewritten.
  void make(std::uint32_t count, std::uint32_t flags = 0) {
    makeTable(flags);
    CZELTA handle;
    ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
    enter(handle);
    for (std::uint32_t i = 1; i <= count; ++i) ASSERT_DONE(handle, add(handle, i));
    ASSERT_DONE(handle, handle.CommitTransaction(true));
    for (std::uint32_t i = 1; i <= count; ++i) {
      if (i % 7 == 0) {
        ASSERT_DONE(handle, handle.DeleteObject(kTable, static_cast<long long>(i), nullptr));
      } else if (i % 5 == 0) {
        ASSERT_DONE(handle, rewrite(handle, i, i + 2 * count));
      }
    }
    ASSERT_DONE(handle, handle.CommitTransaction(true));
    ASSERT_DONE(handle, handle.EndTransaction());
    ASSERT_EQ(findings(), "");
  }
  [[nodiscard]] std::string findings() const { return findingsOf(path(), true); }
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_CHECK_SHAPE_DATABASE_H
