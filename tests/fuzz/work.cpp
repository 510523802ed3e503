#include "fuzz/work.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "fuzz/found.h"
#include "fuzz/session.h"
#include "fuzz/world.h"

namespace zelta::fuzz {

namespace {

constexpr int kSteps = 60;
constexpr int kObjectsOfWalk = 200;
constexpr std::uint32_t kVariableBit = 1;  ///< types of fixed size are odd

bool isVariable(std::uint32_t type) { return (type & kVariableBit) == 0; }

/// The bytes that an encoding's own words claim, as an application that trusts them reads them, but
/// no more than there are.
void touchValue(std::uint32_t type, const void* value, std::size_t left) {
  switch (type) {
    case CZELTA::TypeText:
      touchText(static_cast<const char*>(value));
      break;
    case CZELTA::TypeWideText: {
      // Not aligned: units are read as an application must.
      const auto* at = static_cast<const char*>(value);
      for (std::uint16_t unit = 1; unit != 0; at += 2) std::memcpy(&unit, at, sizeof unit);
      break;
    }
    default:
      touch(value, left);
  }
}

std::string widened(const std::string& text) {
  std::string out;
  for (const char c : text) out += {c, '\0'};
  return out;
}

}  // namespace

void Work::run() {
  for (int i = 0; i < kSteps && (i == 0 || !steering_.atEnd()); ++i) step();
}

void Work::step() {
  using Step = void (Work::*)(const OpenTable&);
  static constexpr Step kTableSteps[] = {&Work::walkAll, &Work::walkAll,  &Work::readByKey,
                                         &Work::add,     &Work::add,      &Work::rewrite,
                                         &Work::rewrite, &Work::erase,    &Work::restore,
                                         &Work::search,  &Work::readByKey};
  static constexpr void (Work::*kSteps[])() = {
      &Work::begin,      &Work::begin,          &Work::end,          &Work::listTables,
      &Work::listTables, &Work::readParameters, &Work::setParameter, &Work::removeTable,
      &Work::addTable,   &Work::createTable,    &Work::waitForCommit};
  const std::uint8_t choice = steering_.byte();
  if (open_.empty() || choice < 90) {
    (this->*kSteps[choice % std::size(kSteps)])();
  } else if (choice < 115) {
    const bool release = steering_.flag();
    watch(handle_, [&] { return handle_.CommitTransaction(release); });
  } else if (choice < 122) {
    const bool release = steering_.flag();
    watch(handle_, [&] { return handle_.AbortTransaction(release); });
  } else if (choice < 125) {
    const unsigned int id = open_[choice % open_.size()].id;
    watch(handle_, [&] { return handle_.CloseTable(id); });
  } else {
    const OpenTable& table = open_[steering_.below(static_cast<std::uint32_t>(open_.size()))];
    (this->*kTableSteps[choice % std::size(kTableSteps)])(table);
  }
}

/// Begins and, most of the time, opens all tables.
void Work::begin() {
  static constexpr CZELTA::Mode kModes[] = {
      CZELTA::TransactionShared, CZELTA::TransactionExclusive,     CZELTA::TransactionShared,
      CZELTA::TransactionRead,   CZELTA::TransactionExclusiveRead, CZELTA::TransactionExclusive};
  const CZELTA::Mode mode = steering_.pick(kModes);
  if (watch(handle_, [&] { return handle_.BeginTransaction(mode, 1000); }) != 0) return;
  if (steering_.once(8)) return;
  listTables();
  const std::vector<unsigned int> all = known_;
  for (const unsigned int id : all) openTable(id);
}

void Work::end() {
  open_.clear();
  watch(handle_, [&] { return handle_.EndTransaction(); });
}

void Work::listTables() {
  unsigned int size = 0;
  known_ = {1, 2};
  if (watch(handle_, [&] { return handle_.GetDatabaseMembers(nullptr, &size); }) != 0) return;
  std::vector<CZELTA::DatabaseMember> members(size / sizeof(CZELTA::DatabaseMember) + 1);
  unsigned int count = 0;
  if (watch(handle_, [&] { return handle_.GetDatabaseMembers(members.data(), &count); }) != 0) {
    return;
  }
  expect(count * sizeof members[0] <= size, "more members than there is room for");
  known_.clear();
  for (unsigned int i = 0; i < count; ++i) {
    touchText(members[i].tableName);
    known_.push_back(members[i].tableId);
  }
}

void Work::openTable(unsigned int id) {
  if (watch(handle_, [&] { return handle_.OpenTable(id); }) != 0) return;
  const bool known = std::any_of(open_.begin(), open_.end(),
                                 [id](const OpenTable& table) { return table.id == id; });
  if (!known) learnSchema(id);
}

void Work::learnSchema(unsigned int id) {
  unsigned int size = 0;
  if (watch(handle_, [&] { return handle_.GetTableSchema(id, nullptr, &size); }) != 0) return;
  expect(size >= sizeof(CZELTA::Schema), "a schema without room for itself");
  std::vector<std::uint64_t> buffer((size + 7) / 8);
  auto* schema = reinterpret_cast<CZELTA::Schema*>(buffer.data());
  if (watch(handle_, [&] { return handle_.GetTableSchema(id, schema, &size); }) != 0) return;
  OpenTable table{
      id, {}, {}, 0, schema->indexCount, (schema->schemaFlags & CZELTA::SchemaWideObjectIds) != 0};
  touchText(schema->tableName);
  if (schema->tablePath != nullptr) touchText(schema->tablePath);
  for (std::uint32_t i = 0; i < schema->fieldCount; ++i) {
    const CZELTA::Schema::Field& field = schema->fields[i];
    touchText(field.fieldName);
    for (std::uint32_t k = 0; k < field.subFieldCount; ++k) touchText(field.subFields[k].fieldName);
    table.fieldTypes.push_back(field.fieldType);
    table.subFieldCounts.push_back(field.subFieldCount);
    if (!isVariable(field.fieldType)) table.firstVariable = i + 1;
  }
  for (std::uint32_t i = 0; i < schema->indexCount; ++i) {
    const CZELTA::Schema::Index& index = schema->indexes[i];
    touch(index.segments, index.segmentCount * sizeof *index.segments);
  }
  open_.push_back(std::move(table));
}

void Work::readParameters() {
  for (unsigned int parameter = 0; parameter < 7; ++parameter) {
    long long value = 0;
    watch(handle_, [&] {
      return handle_.GetDatabaseParameter(static_cast<CZELTA::Parameter>(parameter), &value);
    });
  }
}

void Work::setParameter() {
  static constexpr long long kValues[] = {0, 1, 1, 2, 32, -1, 65535, 65536};
  const auto parameter = static_cast<CZELTA::Parameter>(steering_.below(6));
  const long long value = steering_.pick(kValues);
  watch(handle_, [&] { return handle_.SetDatabaseParameter(parameter, value); });
}

CZELTA::Mode Work::someFlags() {
  static constexpr unsigned kFlags[] = {0, 0, CZELTA::ReadNoLock, CZELTA::ReadNoWait,
                                        CZELTA::ReadShortWait};
  return static_cast<CZELTA::Mode>(steering_.pick(kFlags));
}

const void* Work::idKey(const OpenTable& table, long long id) {
  key_.assign(table.wide ? 8 : 4, '\0');
  std::memcpy(key_.data(), &id, key_.size());
  return key_.data();
}

/// IDs of objects that may be there, and some that can't; none is so far that a table grows much.
long long Work::someID() {
  static constexpr long long kFar[] = {-1, 0x7FFFFFFF, 0x80000000, 0x100000001, 1ll << 62, 1000};
  return steering_.once(16) ? steering_.pick(kFar) : steering_.below(40);
}

/// A damaged log may bring an object with an ID of millions. Walks over the free IDs below it are
/// right to look at each of them, and would take up all the time.
bool Work::isSparse(const OpenTable& table) {
  constexpr long long kFar = 100000;
  CZELTA::Object object{};
  const auto word = watch(handle_, [&] {
    return handle_.ReadObject(table.id, CZELTA::ReadLast | CZELTA::ReadNoLock, &object, 0, nullptr,
                              nullptr);
  });
  return word == 0 && object.objectID > kFar;
}

void Work::walk(const OpenTable& table, std::uint32_t index, CZELTA::Mode first,
                CZELTA::Mode flags) {
  if (index == 0 && isSparse(table)) return;
  CZELTA::Mode mode = first;
  for (int i = 0; i < kObjectsOfWalk; ++i) {
    CZELTA::Object object{};
    unsigned int entry = 0;
    const auto word = watch(handle_, [&] {
      return handle_.ReadObject(table.id, mode | flags, &object, index, nullptr, &entry);
    });
    if (word != 0) return;
    look(table, object);
    mode = first == CZELTA::ReadFirst ? CZELTA::ReadNext : CZELTA::ReadPrevious;
  }
}

void Work::walkAll(const OpenTable& table) {
  const CZELTA::Mode first = steering_.flag() ? CZELTA::ReadFirst : CZELTA::ReadLast;
  const CZELTA::Mode flags = someFlags();
  for (std::uint32_t index = 0; index <= table.indexCount && index < 8; ++index) {
    walk(table, index, first, flags);
  }
}

void Work::readByKey(const OpenTable& table) {
  const auto mode = static_cast<CZELTA::Mode>(CZELTA::ReadEqual + steering_.below(9));
  const std::uint32_t index = steering_.below(table.indexCount + 2);
  const long long id = someID();
  const void* key = idKey(table, id);
  if (index == 0 && isSparse(table)) return;
  if (index != 0) {
    key_ = steering_.text(steering_.below(24));
    key_.resize(4096);  // ends any text
    key = key_.data();
  }
  const CZELTA::Mode flags = someFlags();
  CZELTA::Object object{};
  unsigned int entry = 0;
  const auto word = watch(handle_, [&] {
    return handle_.ReadObject(table.id, mode | flags, &object, index, key, &entry);
  });
  if (word == 0) look(table, object);
}

/// Everything that an application may read of an object.
void Work::look(const OpenTable& table, const CZELTA::Object& object) {
  touch(object.data, object.length);
  for (std::uint32_t i = table.firstVariable; i < table.fieldTypes.size(); ++i) {
    lookAtField(table, i, object);
  }
}

void Work::lookAtField(const OpenTable& table, std::uint32_t field, const CZELTA::Object& whole) {
  const std::uint32_t number = field - table.firstVariable;
  void* value = nullptr;
  CZELTA::Object object{};
  const auto word =
      watch(handle_, [&] { return handle_.GetVariableField(table.id, number, &value, &object); });
  if (word != 0 || value == nullptr) return;
  const auto* start = static_cast<const char*>(whole.data);
  const auto* at = static_cast<const char*>(value);
  expect(at >= start && at <= start + whole.length, "a field outside of its object");
  touchValue(table.fieldTypes[field], value, static_cast<std::size_t>(start + whole.length - at));
  if (table.fieldTypes[field] == CZELTA::TypeSubRecords) lookAtRows(table, field, whole);
}

void Work::lookAtRows(const OpenTable& table, std::uint32_t field, const CZELTA::Object& whole) {
  constexpr unsigned kRows = 20;
  for (unsigned row = 0; row < kRows; ++row) {
    bool any = false;
    for (unsigned sub = 0; sub < table.subFieldCounts[field]; ++sub) {
      void* value = nullptr;
      CZELTA::Object object{};
      const auto word = watch(handle_, [&] {
        return handle_.GetVariableField(table.id, field - table.firstVariable, sub, row, &value,
                                        &object);
      });
      if (word != 0 || value == nullptr) continue;
      const auto* start = static_cast<const char*>(whole.data);
      const auto* at = static_cast<const char*>(value);
      expect(at >= start && at <= start + whole.length, "a sub-field outside of its object");
      touch(value, static_cast<std::size_t>(start + whole.length - at));
      any = true;
    }
    if (!any) return;
  }
}

void Work::add(const OpenTable& table) {
  CZELTA::Object object{};
  const unsigned int size = steering_.below(64);
  if (watch(handle_, [&] { return handle_.NewObject(table.id, &object, size); }) != 0) return;
  const std::string bytes = steering_.text(std::min<std::size_t>(object.length, 12));
  std::memcpy(object.data, bytes.data(), std::min<std::size_t>(object.length, bytes.size()));
  const long long id = steering_.once(4) ? steering_.below(60) : 0;
  watch(handle_, [&] { return handle_.AddObject(table.id, &object, id); });
}

void Work::rewrite(const OpenTable& table) {
  CZELTA::Object object{};
  const long long id = someID();
  if (watch(handle_, [&] { return handle_.ReadObject(table.id, id, &object); }) != 0) return;
  look(table, object);
  if (object.length != 0) static_cast<char*>(object.data)[0] = static_cast<char>(steering_.byte());
  if (table.firstVariable < table.fieldTypes.size()) {
    // A size of 0 would say that the values are known to be well formed.
    const std::string values = steering_.text(1 + steering_.below(40));
    const unsigned field = steering_.below(3);
    watch(handle_, [&] {
      return handle_.PutVariableValues(table.id, values.data(),
                                       static_cast<unsigned>(values.size()), field, 1, &object);
    });
  }
  watch(handle_, [&] { return handle_.RewriteObject(table.id, &object); });
}

void Work::erase(const OpenTable& table) {
  CZELTA::Object object{};
  const long long id = someID();
  if (steering_.flag()) {
    watch(handle_, [&] { return handle_.DeleteObject(table.id, id, &object); });
    return;
  }
  unsigned int entry = 0;
  const auto mode = static_cast<CZELTA::Mode>(CZELTA::ReadEqual + steering_.below(9));
  const std::uint32_t index = steering_.below(table.indexCount + 1);
  const void* key = idKey(table, id);
  if (index != 0) {
    key_.resize(4096);
    key = key_.data();
  }
  watch(handle_, [&] { return handle_.DeleteObject(table.id, mode, &object, index, key, &entry); });
}

void Work::restore(const OpenTable& table) {
  const long long id = someID();
  const bool unlock = steering_.flag();
  watch(handle_, [&] { return handle_.RestoreObject(table.id, id, unlock); });
}

/// Values for any kind of index: bounds, or as many points as the first word says.
std::string Work::someQuery() {
  static constexpr std::int32_t kEnds[] = {
      std::numeric_limits<std::int32_t>::min(), -2147483647, -1, 0, 1,
      std::numeric_limits<std::int32_t>::max()};
  std::string key;
  const bool pattern = steering_.flag();
  const std::uint32_t words = 6 + steering_.below(8);
  for (std::uint32_t i = 0; i < words; ++i) {
    const std::int32_t number =
        steering_.once(4) ? steering_.pick(kEnds) : static_cast<std::int32_t>(steering_.byte()) * 2;
    key.append(reinterpret_cast<const char*>(&number), sizeof number);
  }
  const auto length = static_cast<std::uint32_t>(steering_.once(8) ? steering_.byte() % 9 : 28);
  if (pattern) std::memcpy(key.data(), &length, sizeof length);
  key.resize(4096);
  return key;
}

static std::uint32_t lengthIn(const std::string& key) {
  std::uint32_t length = 0;
  std::memcpy(&length, key.data(), sizeof length);
  return length;
}

/// Searches, looks at what is found, and searches among it.
void Work::search(const OpenTable& table) {
  static constexpr CZELTA::Mode kModes[] = {CZELTA::Mode{}, CZELTA::SearchLockResults,
                                            CZELTA::SearchKeepResults, CZELTA::Mode{}};
  const std::uint32_t index = steering_.below(table.indexCount + 2);
  static constexpr const char* kWords[] = {"all", "word1 or word2", "not (all or n)", "n100", ""};
  for (int i = 0; i < 2; ++i) {
    std::string key = someQuery();
    std::string words = steering_.pick(kWords);
    if (words.empty()) words = steering_.text(steering_.below(8));
    if (steering_.flag()) words = widened(words);
    words.resize(words.size() + 4);  // ends a text of either width
    const CZELTA::Mode mode = steering_.pick(kModes);
    static constexpr std::uint32_t kTolerances[] = {0, 3, 60, 0x7FFFFFFF, 0xFFFFFFFF};
    const std::uint32_t tolerance = steering_.pick(kTolerances);
    long long count = 0;
    const bool byExpression = steering_.flag();
    if (!byExpression && lengthIn(key) > key.size()) {
      // A pattern's length is the caller's word for how far its key may be read.
      constexpr std::uint32_t kThreePoints = 28;
      std::memcpy(key.data(), &kThreePoints, sizeof kThreePoints);
    }
    const auto word = byExpression ? watch(handle_,
                                           [&] {
                                             return handle_.SearchIndex(table.id, index, key.data(),
                                                                        words.data(), mode, &count);
                                           })
                                   : watch(handle_, [&] {
                                       return handle_.SearchIndex(table.id, index, key.data(),
                                                                  tolerance, mode, &count);
                                     });
    if (word == 0 && index <= table.indexCount) walk(table, index, CZELTA::ReadFirst, someFlags());
  }
}

void Work::removeTable() {
  const unsigned int id = known_.empty() ? 1 : known_[steering_.below(8) % known_.size()];
  const bool files = steering_.flag();
  const auto word = watch(handle_, [&] { return handle_.RemoveTable(id, files); });
  if (word != 0) return;
  open_.erase(std::remove_if(open_.begin(), open_.end(),
                             [id](const OpenTable& table) { return table.id == id; }),
              open_.end());
}

void Work::addTable() {
  static constexpr const char16_t* kNames[] = {u"a", u"b", u"c", u"c.zlt", u"../s/a", u"i/a"};
  static const std::u16string kFolder = World::path("i/");
  const char16_t* name = steering_.pick(kNames);
  const char16_t* folder = steering_.once(3) ? kFolder.c_str() : nullptr;
  const unsigned int id = steering_.below(4);
  watch(handle_, [&] { return handle_.AddTable(name, id, folder, 0); });
}

void Work::createTable() {
  CZELTA::Schema::Field fields[] = {{CZELTA::TypeUInt32, 0, 0, 0, u"n", nullptr},
                                    {CZELTA::TypeText, 0, 8, 0, u"t", nullptr}};
  CZELTA::Schema::Segment segment{0, 0};
  CZELTA::Schema::Index index{0, CZELTA::BPlusTree, 1, {0}, &segment};
  CZELTA::Schema schema{};
  schema.tableName = steering_.flag() ? u"c" : u"b";
  schema.fieldCount = steering_.flag() ? 2 : 1;
  schema.fields = fields;
  schema.indexCount = 1;
  schema.indexes = &index;
  unsigned int id = 0;
  if (watch(handle_, [&] { return handle_.CreateTable(&schema, &id); }) == 0) learnSchema(id);
}

void Work::waitForCommit() {
  std::vector<char> buffer(4096);
  unsigned int file = 0;
  long long position = 0;
  unsigned int transaction = 0;
  for (int i = 0; i < 20; ++i) {
    auto size = static_cast<long long>(buffer.size());
    const auto word = watch(handle_, [&] {
      return handle_.WaitNextCommit(&file, &position, &transaction, &size, buffer.data(), 100);
    });
    if (word != 0) return;
    expect(size >= 0 && size <= static_cast<long long>(buffer.size()), "an entry without room");
    touch(buffer.data(), static_cast<std::size_t>(size));
  }
}

}  // namespace zelta::fuzz
