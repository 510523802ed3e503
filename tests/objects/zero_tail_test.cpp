// The zeros behind an object in the buffer, which end a text that lost its terminator.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "objects/put_values.h"
#include "support/object_handle.h"

namespace zelta::testing {
namespace {

using namespace std::string_literals;

using ZeroTail = ObjectTest;

/// The bytes behind the object, which the buffer had other things in before.
std::string behind(const Table& table) {
  return {table.objectData + table.objectLength, kZeroTail};
}
const std::string kZeros(kZeroTail, '\0');

TEST_F(ZeroTail, StandsBehindWhatIsRead) {
  make({{CZELTA::TypeText}, {CZELTA::TypeText}}, {});
  const std::string large = std::string(3000, 'x') + '\0' + std::string(3000, 'y') + '\0';
  const std::string small = "a\0b\0"s;
  one->added(large);
  one->added(small);
  one->commit();
  const auto expectZeros = [&](std::uint64_t id) {
    one->done(one->read(id));
    EXPECT_EQ(behind(one->table()), kZeros) << id;
  };
  for (int round = 0; round < 2; ++round) {
    expectZeros(1);
    expectZeros(2);
  }
  one->done(one->rewrite(1, large));
  one->done(one->rewrite(2, small));
  for (int round = 0; round < 2; ++round) {
    expectZeros(1);
    expectZeros(2);
  }
  one->done(one->erase(1));
  EXPECT_EQ(behind(one->table()), kZeros);
  one->done(one->erase(2));
  EXPECT_EQ(behind(one->table()), kZeros);
}

TEST_F(ZeroTail, StandsBehindObjectsOfFixedSize) {
  make({{CZELTA::TypeCharArray, 20}}, {});
  one->added(std::string(20, 'x'));
  one->commit();
  std::memset(one->table().objectBuffer.data(), 'x', one->table().objectBuffer.size() + kZeroTail);
  one->done(one->read(1));
  EXPECT_EQ(behind(one->table()), kZeros);
}

/// Fills the buffer with other bytes, up to the end of its memory, and puts an object there.
void fill(BufferTable& t, std::uint64_t capacity, const std::string& object) {
  ASSERT_TRUE(
      newObject(t.table, nullptr,
                static_cast<std::uint32_t>(capacity - kVariableLead - t.table.minimumObjectSize))
          .ok());
  std::memset(t.table.objectBuffer.data(), 'x', t.table.objectBuffer.size() + kZeroTail);
  std::memcpy(t.table.objectData, object.data(), object.size());
  t.table.objectLength = static_cast<std::uint32_t>(object.size());
}

TEST_F(ZeroTail, StandsBehindWhatIsMadeAndChanged) {
  BufferTable t(Fields{{CZELTA::TypeText}, {CZELTA::TypeText}});
  const std::string object = t.header(1).text("ab").text("cd");
  const auto replace = [&](const std::string& value) {
    EXPECT_TRUE(
        putVariableValues(
            t.table, {value.c_str(), static_cast<std::uint32_t>(value.size() + 1), 0, 1}, nullptr)
            .ok());
    EXPECT_EQ(behind(t.table), kZeros) << value;
  };
  fill(t, 100, object);
  replace("abcdef");  // grows where it is
  fill(t, 100, object);
  replace("");  // shrinks
  fill(t, 100, object);
  replace("xy");  // stays as long as it is
  // Grows to the last byte that the buffer counts, and beyond it: into the scratch buffer.
  fill(t, 100, object);
  replace(std::string(100 - kVariableLead - object.size() + 2, 'z'));
  fill(t, 100, object);
  t.metaData.scratchFor(Scratch::object).replaceZeroed(300);
  std::memset(t.metaData.scratchFor(Scratch::object).data(), 'x', 300 + kZeroTail);
  replace(std::string(280 - object.size() + 2, 'z'));
  // The scratch buffer has the table's memory now, and takes it to its end as well.
  fill(t, 300, object);
  replace(std::string(1000, 'z'));

  fill(t, 100, object);
  EXPECT_TRUE(newObject(t.table, nullptr, 80).ok());
  EXPECT_EQ(behind(t.table), kZeros);
  fill(t, 100, object);
  EXPECT_TRUE(putVariableValues(t.table, nullptr, 80).ok());
  EXPECT_EQ(behind(t.table), kZeros);
  EXPECT_TRUE(putVariableValues(t.table, nullptr, 800).ok());
  EXPECT_EQ(behind(t.table), kZeros);
}

TEST_F(ZeroTail, EndsAWideTextAtAnOddAddress) {
  BufferTable t(Fields{{CZELTA::TypeUInt8}, {CZELTA::TypeWideText}});
  t.put(t.header(1).number(std::uint8_t{1}).raw("abc"));  // one and a half units, no end
  EXPECT_EQ(t.table.objectData[t.table.objectLength + 1], 0);
  EXPECT_EQ(t.table.objectData[t.table.objectLength + 2], 0);
}

}  // namespace
}  // namespace zelta::testing
