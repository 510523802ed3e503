// The block of a schema in the table file and in the log, byte for byte, and the copy that
// GetTableSchema() hands out.

#include "schema/stored_schema.h"

#include <random>

#include "block_packer.h"
#include "schema_fixture.h"

namespace zelta::testing {

namespace {

FieldSpec rows(std::vector<FieldSpec> subFields) { return {CZELTA::TypeSubRecords, 64, subFields}; }

struct BlockCase {
  const char* title;
  Fields fields;
  Indexes indexes;
  Change change = {};
  std::uint32_t flags = 0;
};

std::vector<BlockCase> blockCases() {
  const auto head = [](CZELTA::Schema& s) {
    s.lockIndex = 2;
    s.lockOrder = 77;
    s.tableId = 5;
    s.schemaFlags = 0xFFFFFFFE;
  };
  return {
      {"nothing at all", {}, {}},
      {"one fixed field", {{17}}, {}},
      {"one variable field", {{2, 30}}, {}},
      {"one index", {{17}}, {{{{0, 1}}}}},
      {"an index without segments", {{17}}, {{{}}}},
      {"indexes without segments among others", {{17}}, {{{}}, {{{0, 0}, {-1, 1}}}, {{}}}},
      {"no field but an index", {}, {{{{-1, 0}}}}},
      {"rows", {{9}, rows({{17}, {2, 5}})}, {}},
      {"two fields of rows", {rows({{9}}), {8}, rows({{9}, {17}, {37, 3}})}, {}},
      {"an index of rows", {{9}, rows({{17}})}, {{{{2, 0}, {-2, 0}}}}},
      {"all kinds",
       {{17}, {39}, {31}, {31}, {2, 9}, {14, 40}},
       {{{{4, 0x24}}},
        {{{1, 0}}, CZELTA::SpatialTree},
        {{{0, 0}, {4, 0x10}}, CZELTA::AsciiList},
        {{{4, 0x14}}, CZELTA::WideList},
        {{{2, 0}, {3, 5}}, CZELTA::TemporalTree},
        {{{5, 0}}, CZELTA::SpatialPattern}},
       [](CZELTA::Schema& s) { s.indexes[2].maximumObjectPower = 50; }},
      {"wide IDs", {{17}}, {{{{-1, 0}}}}, {}, 1},
      {"numbers of the head", {{17}, {2}}, {{{{0, 0}}}, {{{1, 0}}}}, head},
      {"a lock index that leads nowhere",
       {{17}},
       {{{{0, 0}}}},
       [](CZELTA::Schema& s) { s.lockIndex = 65535; }},
      {"an array keeps the caller's count",
       {{37, 6}, rows({{37, 2}})},
       {},
       [](CZELTA::Schema& s) {
         s.fields[0].subFieldCount = 0xABCD;
         s.fields[1].subFields[0].subFieldCount = 3;
       }},
      {"names of any units",
       {{17}, rows({{3}})},
       {},
       [](CZELTA::Schema& s) {
         s.fields[0].fieldName = u"\xE9 \x4E00 \xD83D\xDE00";
         s.fields[1].fieldName = u"x";
         s.fields[1].subFields[0].fieldName = u"\xFFFF";
       }},
  };
}

/// A schema that breaks no rule.
BlockCase randomCase(std::mt19937& random) {
  const auto below = [&](std::uint32_t end) { return static_cast<std::uint32_t>(random() % end); };
  const std::uint32_t fixed[] = {3, 5, 7, 9, 13, 17, 21, 27, 31, 33, 35, 37, 43};
  const std::uint32_t variable[] = {2, 4, 6, 8, 12, 14};
  BlockCase out{"random", {}, {}};
  std::int32_t subFields = 0;
  for (std::uint32_t i = below(6) + 1; i != 0; --i)
    out.fields.push_back({fixed[below(13)], below(9)});
  for (std::uint32_t i = below(5); i != 0; --i) {
    if (below(3) != 0) {
      out.fields.push_back({variable[below(6)], below(50) + 4});
      continue;
    }
    std::vector<FieldSpec> subs;
    for (std::uint32_t s = below(4) + 1; s != 0; --s) subs.push_back({fixed[below(13)], below(9)});
    subFields += static_cast<std::int32_t>(subs.size());
    out.fields.push_back(rows(subs));
  }
  const std::int32_t plain = 1;  // the first field is fixed
  for (std::uint32_t i = below(5); i != 0; --i) {
    Segments segments;
    for (std::uint32_t k = below(4); k != 0; --k) {
      const bool sub = subFields != 0 && below(2) == 0;
      const std::int32_t count = sub ? subFields : plain;
      const std::int32_t first = sub ? static_cast<std::int32_t>(out.fields.size()) : 0;
      segments.push_back(
          {first + static_cast<std::int32_t>(below(static_cast<std::uint32_t>(count))), below(2)});
    }
    out.indexes.push_back({segments});
  }
  out.flags = below(4);
  return out;
}

}  // namespace

class StoredSchema : public SchemaTest {
 protected:
  /// Makes the table and gives its file's block; the caller's records are complete then.
  std::string blockOf(SchemaRecords& records) {
    EXPECT_DONE(handle, handle.CreateTable(&records.schema, &id));
    RawBytes file(folder.bytes("T.zlt"));
    const RawTableHeader header = readRawTableHeader(file);
    EXPECT_EQ(file.damage, "");
    return file.part(168, header.schemaSize);
  }
  std::string blockOf(const BlockCase& one) {
    SchemaRecords records(one.fields, one.indexes, one.flags);
    if (one.change) one.change(records.schema);
    const std::string block = blockOf(records);
    EXPECT_TRUE(block == BlockPacker(records.schema).tableBlock());
    return block;
  }
  /// What GetTableSchema() hands out, in memory of just the size that it asks for.
  std::vector<char> handedOut() {
    unsigned int size = 0;
    EXPECT_DONE(handle, handle.GetTableSchema(id, nullptr, &size));
    std::vector<char> buffer(size);
    EXPECT_DONE(handle, handle.GetTableSchema(id, reinterpret_cast<CZELTA::Schema*>(buffer.data()),
                                              nullptr));
    return buffer;
  }
  void closeAndOpen() {
    ASSERT_DONE(handle, handle.EndTransaction());
    ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
    ASSERT_DONE(handle, handle.OpenTable(id));
  }
  void remove() { ASSERT_DONE(handle, handle.RemoveTable(id, true)); }

  unsigned int id = 0;
};

TEST_F(StoredSchema, EveryFormLiesAsItShould) {
  for (const BlockCase& one : blockCases()) {
    SCOPED_TRACE(one.title);
    blockOf(one);
    const RawTable file(folder.bytes("T.zlt"));
    EXPECT_EQ(file.damage(), "");
    EXPECT_EQ(file.header.areaStart, file.header.slotBase + 612) << "room for 50 slots";
    EXPECT_EQ(file.header.end, file.header.areaStart);
    EXPECT_EQ(folder.bytes("T.zlt").substr(file.header.slotBase + 12), std::string(600, '\0'));
    remove();
  }
}

TEST_F(StoredSchema, ASmallBlockInAllItsBytes) {
  SchemaRecords records({{2, 30}}, {{{{0, 4}}}}, 0);
  Packed expected;
  expected.number(std::uint16_t{0}).number(std::uint16_t{1}).zeros(4).zeros(4);
  expected.number(1u).number(0u).zeros(8).number(18u).number(30u);
  expected.number(2u).number(0u).number(30u).number(0u).number(40u).number(0u);
  expected.number(std::uint8_t{1}).number(std::uint8_t{0}).number(std::uint16_t{1});
  expected.number(9u).number(36u);  // 30 bytes and a length word: 34 bytes, 9 words
  expected.number(std::int32_t{0}).number(4u);
  expected.wide(u"f0");
  EXPECT_EQ(blockOf(records), expected.str());
}

TEST_F(StoredSchema, TheOrderIsTheCallersAndTheIDIsNotStored) {
  SchemaRecords records({{17}}, {}, 0);
  std::string block = blockOf(records);
  EXPECT_EQ(numberAt<std::uint32_t>(block, 4), 0u);
  EXPECT_EQ(numberAt<std::uint32_t>(block, 8), 0u) << "assigned orders stand in the directory";
  remove();
  records.schema.tableId = 9;
  records.schema.lockOrder = 12;
  block = blockOf(records);
  EXPECT_EQ(numberAt<std::uint32_t>(block, 4), 0u);
  EXPECT_EQ(numberAt<std::uint32_t>(block, 8), 12u);
}

TEST_F(StoredSchema, RandomSchemasLieAsTheyShouldAndComeBack) {
  const unsigned int seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 100; ++round) {
    const std::string block = blockOf(randomCase(random));
    closeAndOpen();
    std::vector<char> copy = handedOut();
    auto& schema = *reinterpret_cast<CZELTA::Schema*>(copy.data());
    schema.lockOrder = 0;
    EXPECT_TRUE(BlockPacker(schema).tableBlock() == block);
    remove();
    if (HasFailure()) return;
  }
}

TEST_F(StoredSchema, TheLogsFormHasNamesInsideAndPositionsInBytes) {
  for (const BlockCase& one : blockCases()) {
    SCOPED_TRACE(one.title);
    SchemaRecords records(one.fields, one.indexes, one.flags);
    if (one.change) one.change(records.schema);
    blockOf(records);
    remove();
    for (const auto& folderName : {std::u16string(), std::u16string(u"/some/where/")}) {
      for (const auto& name : {std::u16string(u"T"), std::u16string(u"goods")}) {
        EXPECT_TRUE(schemaRecord(records.schema, name, folderName) ==
                    BlockPacker(records.schema).logBlock(name, folderName));
      }
    }
  }
}

TEST_F(StoredSchema, AFileWhoseEmptyIndexesHaveNoPositionIsTaken) {
  SchemaRecords records({{17}}, {{{}}, {{{0, 0}}}}, 0);
  blockOf(records);
  ASSERT_DONE(handle, handle.EndTransaction());
  std::string file = folder.bytes("T.zlt");
  const std::size_t position = 168 + 36 + 24 + 8;
  ASSERT_NE(numberAt<std::uint32_t>(file, position), 0u) << "the running position is stored";
  file.replace(position, 4, std::string(4, '\0'));
  folder.write("T.zlt", file);
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionExclusive, 0));
  EXPECT_DONE(handle, handle.OpenTable(id));
}

// -- Handed out -----------------------------------------------------------------------------------

namespace {

/// Whether a pointer leads into the buffer.
template <typename T>
bool inside(const std::vector<char>& buffer, const T* pointer) {
  const auto* at = reinterpret_cast<const char*>(pointer);
  return at >= buffer.data() && at < buffer.data() + buffer.size();
}

void expectInside(const std::vector<char>& buffer) {
  const auto& schema = *reinterpret_cast<const CZELTA::Schema*>(buffer.data());
  EXPECT_TRUE(inside(buffer, schema.tableName));
  EXPECT_EQ(schema.fields == nullptr, schema.fieldCount == 0);
  EXPECT_EQ(schema.indexes == nullptr, schema.indexCount == 0);
  for (std::uint32_t f = 0; f < schema.fieldCount; ++f) {
    const CZELTA::Schema::Field& field = schema.fields[f];
    EXPECT_TRUE(inside(buffer, &field) && inside(buffer, field.fieldName));
    EXPECT_EQ(field.subFields != nullptr, field.fieldType == 10);
    for (std::uint32_t s = 0; field.fieldType == 10 && s < field.subFieldCount; ++s) {
      EXPECT_TRUE(inside(buffer, &field.subFields[s]));
      EXPECT_TRUE(inside(buffer, field.subFields[s].fieldName));
      EXPECT_EQ(field.subFields[s].subFields, nullptr);
    }
  }
  for (std::uint32_t i = 0; i < schema.indexCount; ++i) {
    const CZELTA::Schema::Index& index = schema.indexes[i];
    EXPECT_TRUE(inside(buffer, &index));
    EXPECT_TRUE(index.segmentCount == 0 || inside(buffer, index.segments));
  }
}

}  // namespace

TEST_F(StoredSchema, TheSchemaIsHandedOutWholeByMakerAndOpener) {
  for (const BlockCase& one : blockCases()) {
    SCOPED_TRACE(one.title);
    const std::string block = blockOf(one);
    for (int round = 0; round < 2; ++round) {
      SCOPED_TRACE(round == 0 ? "maker" : "opener");
      std::vector<char> buffer = handedOut();
      auto& schema = *reinterpret_cast<CZELTA::Schema*>(buffer.data());
      expectInside(buffer);
      EXPECT_EQ(plainText(schema.tableName), "T");
      EXPECT_EQ(schema.tablePath, nullptr) << "the database's folder is not named";
      EXPECT_EQ(schema.tableId, id);
      EXPECT_NE(schema.lockOrder, 0u) << "the directory's number";
      schema.lockOrder = numberAt<std::uint32_t>(block, 8);
      EXPECT_TRUE(BlockPacker(schema).tableBlock() == block);
      closeAndOpen();
    }
    remove();
  }
}

TEST_F(StoredSchema, TheSizeIsThatOfTheCopyTheNameAndTheFolder) {
  SchemaRecords records({{17}, rows({{9}, {2}})}, {{{{0, 0}, {-1, 0}}}}, 0, u"goods");
  ASSERT_DONE(handle, handle.CreateTable(&records.schema, &id));
  unsigned int size = 0;
  ASSERT_DONE(handle, handle.GetTableSchema(id, nullptr, &size));
  const unsigned int copy = 56 + 4 * 32 + 16 + 2 * 8 + 4 * 6;
  EXPECT_EQ(size, copy + 4 + 2 * 5);

  SchemaRecords far({{17}}, {}, 0, u"far");
  const std::u16string place = folder.file("indexes");
  far.schema.tablePath = place.c_str();
  ASSERT_DONE(handle, handle.CreateTable(&far.schema, &id));
  ASSERT_DONE(handle, handle.GetTableSchema(id, nullptr, &size));
  EXPECT_EQ(size, 56 + 32 + 6 + 4 + 2 * 3 + 2 * (place.size() + 1));
  const std::vector<char> buffer = handedOut();
  const auto& schema = *reinterpret_cast<const CZELTA::Schema*>(buffer.data());
  expectInside(buffer);
  ASSERT_TRUE(inside(buffer, schema.tablePath));
  EXPECT_EQ(std::u16string(schema.tablePath), place + platform::kSeparator);
  EXPECT_EQ(plainText(schema.tableName), "far");
}

TEST_F(StoredSchema, WhatIsHandedOutMakesTheSameTableAgain) {
  for (const BlockCase& one : blockCases()) {
    SCOPED_TRACE(one.title);
    const std::string block = blockOf(one);
    std::vector<char> buffer = handedOut();
    auto& schema = *reinterpret_cast<CZELTA::Schema*>(buffer.data());
    schema.tableName = u"again";
    schema.tableId = 0;
    schema.lockOrder = 0;
    ASSERT_DONE(handle, handle.CreateTable(&schema, nullptr));
    std::string again = folder.bytes("again.zlt").substr(168, block.size());
    again.replace(8, 4, block, 8, 4);  // the caller's order is another
    EXPECT_TRUE(again == block);
    remove();
    ASSERT_DONE(handle, handle.RemoveTable(id + 1, true));
  }
}

TEST_F(StoredSchema, SomethingMustBeAskedForOfAnOpenTable) {
  EXPECT_EQ(handle.GetTableSchema(1, nullptr, nullptr), ownCode(7));
  unsigned int size = 1234;
  EXPECT_EQ(handle.GetTableSchema(1, nullptr, &size), ownCode(6));
  EXPECT_EQ(messageOf(handle), "Table (ID = 1) is not currently open.");
  EXPECT_EQ(size, 1234u);
  ASSERT_DONE(handle, handle.EndTransaction());
  EXPECT_EQ(handle.GetTableSchema(1, nullptr, nullptr), ownCode(3));
}

}  // namespace zelta::testing
