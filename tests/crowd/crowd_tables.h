// The database of a crowd of processes: three tables of different forms, whose objects' whole
// content follows from a row of three numbers.

#ifndef ZELTA_TESTS_CROWD_CROWD_TABLES_H
#define ZELTA_TESTS_CROWD_CROWD_TABLES_H

#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <tuple>

#include "czelta.h"
#include "support/buffer_table.h"
#include "support/database_fixture.h"
#include "support/shapes.h"

namespace zelta::testing {

/// The fixed fields of every object, as they stand in it. In each table `key` is unique by index 1,
/// `writer` and `sequence` together by index 2. No two contents, of whatever table and time, have
/// writer and sequence in common.
struct CrowdRow {
  std::uint64_t key = 0;
  std::uint32_t writer = 0;
  std::uint32_t sequence = 0;
  bool operator==(const CrowdRow& other) const {
    return key == other.key && writer == other.writer && sequence == other.sequence;
  }
};
static_assert(sizeof(CrowdRow) == 16);

inline std::ostream& operator<<(std::ostream& out, const CrowdRow& row) {
  return out << "key " << row.key << " of " << row.writer << "." << row.sequence;
}

enum CrowdTable : std::uint32_t {
  kTexts = 1,   ///< a text and all shapes; locks in the order of keys
  kOrders = 2,  ///< sub-records with an index over them, wide IDs; locks in the order of IDs
  kCoins = 3    ///< fixed, with a box and a span; locks in the descending order of keys
};
inline constexpr std::uint32_t kCrowdTables = 3;

inline std::uint64_t mixed(std::uint64_t a, std::uint64_t b) {
  std::uint64_t hash = (a + 0x9E3779B97F4A7C15) * 0xBF58476D1CE4E5B9 ^ b * 0x94D049BB133111EB;
  return (hash ^ hash >> 29) * 0xBF58476D1CE4E5B9 >> 16;
}

/// The rows of an order: some that go with its key, so that they stay when it is rewritten, and
/// some of this content alone. Each item may stand in one order only, and once.
inline std::string orderRows(const CrowdRow& row) {
  constexpr std::uint64_t kItems = 20000;
  std::set<std::uint32_t> items;
  const std::uint64_t own = mixed(row.writer, row.sequence);
  for (std::uint64_t i = 0; i < mixed(row.key, 0) % 5; ++i) {
    items.insert(static_cast<std::uint32_t>(mixed(row.key, i + 1) % kItems));
  }
  for (std::uint64_t i = 0; i < own % 4; ++i) {
    items.insert(static_cast<std::uint32_t>(mixed(own, i) % kItems));
  }
  Packed rows;
  for (const std::uint32_t item : items) rows.number(item).text(std::string(item % 7, 'i'));
  return Packed().binary(rows);
}

/// The shapes that belong to a row. Box and span stay when the key does.
inline Shapes shapesOf(const CrowdRow& row) {
  Shapes shapes(row.key);
  shapes.points = Shapes(row.sequence).points;
  shapes.words = Shapes(row.sequence).words;
  return shapes;
}
/// The indexes over them, which come behind the first two.
inline constexpr unsigned kFirstSearch = 3;
inline std::vector<ShapeKind> searchesOf(std::uint32_t table) {
  return table == kOrders ? std::vector<ShapeKind>() : shapeKinds(table == kTexts);
}

/// The fixed fields that belong to a row.
inline std::string fixedPart(std::uint32_t table, const CrowdRow& row) {
  std::string fixed(reinterpret_cast<const char*>(&row), sizeof row);
  return table == kOrders ? fixed : fixed + shapesOf(row).fixedBytes();
}

/// The encoded variable fields that belong to a row.
inline std::string variablePart(std::uint32_t table, const CrowdRow& row) {
  if (table == kOrders) return orderRows(row);
  if (table == kCoins) return "";
  const std::uint64_t hash = mixed(row.key * 31 + row.writer, row.sequence);
  std::string text = std::to_string(hash) + ":";
  text.append(hash % 40 == 0 ? 5000 + hash % 3000 : hash % 130,
              static_cast<char>('a' + row.key % 26));
  return Packed().text(text).raw(shapesOf(row).variableBytes());
}

/// A handle of the database.
class CrowdHandle {
 public:
  CZELTA db;
  CZELTA::Object object{};

  unsigned long long openTables() {
    for (std::uint32_t table = 1; table <= kCrowdTables; ++table) {
      if (const auto failure = db.OpenTable(table); failure != 0) return failure;
    }
    return 0;
  }
  unsigned long long add(std::uint32_t table, const CrowdRow& row, long long id = 0) {
    if (const auto failure = db.NewObject(table, &object, 0); failure != 0) return failure;
    if (const auto failure = put(table, row); failure != 0) return failure;
    return db.AddObject(table, &object, id);
  }
  /// Changes the object in the buffer.
  unsigned long long rewrite(std::uint32_t table, const CrowdRow& row) {
    if (const auto failure = put(table, row); failure != 0) return failure;
    return db.RewriteObject(table, &object);
  }
  unsigned long long read(std::uint32_t table, CZELTA::Mode mode, unsigned index, const void* key) {
    return db.ReadObject(table, mode, &object, index, key, nullptr);
  }
  unsigned long long readId(std::uint32_t table, long long id, CZELTA::Mode flags) {
    return db.ReadObject(table, id, flags, &object);
  }
  [[nodiscard]] CrowdRow row() const {
    CrowdRow row;
    std::memcpy(&row, object.data, sizeof row);
    return row;
  }
  /// Whether the object read last is one that somebody has stored, to the last byte.
  [[nodiscard]] bool isWhole(std::uint32_t table) const {
    const std::string all = fixedPart(table, row()) + variablePart(table, row());
    return object.length == all.size() && std::memcmp(object.data, all.data(), all.size()) == 0;
  }

 private:
  unsigned long long put(std::uint32_t table, const CrowdRow& row) {
    const std::string part = variablePart(table, row);
    if (!part.empty()) {
      const unsigned fields = table == kTexts ? 4 : 1;
      const auto failure = db.PutVariableValues(
          table, part.data(), static_cast<unsigned>(part.size()), 0, fields, &object);
      if (failure != 0) return failure;
    }
    const std::string fixed = fixedPart(table, row);
    std::memcpy(object.data, fixed.data(), fixed.size());
    return 0;
  }
};

/// Makes the database; in a process of its own, so that the test's does not keep it open.
inline void makeCrowdTables(const std::u16string& path) {
  ChildProcess maker([&](const ChildProcess::Line&) {
    const Segments key = {{0, 0}};
    const Segments stamp = {{1, 0}, {2, 0}};
    const FieldSpec number{CZELTA::TypeUInt64};
    const FieldSpec word{CZELTA::TypeUInt32};
    Fields shaped = {number, word, word};
    for (const FieldSpec& field : Shapes::fixedFields()) shaped.push_back(field);
    const auto indexed = [&](std::uint32_t table) {
      Indexes indexes = {{key}, {stamp}};
      for (const IndexSpec& index : shapeIndexes(3, 9, table == kTexts)) indexes.push_back(index);
      return indexes;
    };
    Fields textFields = shaped;
    textFields.push_back({CZELTA::TypeText, 100});
    for (const FieldSpec& field : Shapes::variableFields()) textFields.push_back(field);
    SchemaRecords texts(textFields, indexed(kTexts), 0, u"texts");
    texts.schema.lockIndex = 1;
    const FieldSpec rows{CZELTA::TypeSubRecords, 60, {word, {CZELTA::TypeText, 8}}};
    SchemaRecords orders({number, word, word, rows}, {{key}, {stamp}, {Segments{{4, 0}}}},
                         CZELTA::SchemaWideObjectIds, u"orders");
    SchemaRecords coins(shaped, indexed(kCoins), CZELTA::SchemaLockDescending, u"coins");
    coins.schema.lockIndex = 1;
    CZELTA db;
    if (db.CreateDatabase(path.c_str()) != 0) return 1;
    if (db.BeginTransaction(CZELTA::TransactionExclusive, 10000) != 0) return 2;
    for (SchemaRecords* records : {&texts, &orders, &coins}) {
      if (db.CreateTable(&records->schema, nullptr) != 0) {
        std::cerr << messageOf(db) << '\n';
        return 3;
      }
    }
    return db.EndTransaction() == 0 ? 0 : 4;
  });
  ASSERT_EQ(maker.wait(), 0);
}

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_CROWD_CROWD_TABLES_H
