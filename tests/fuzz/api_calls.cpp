// Calls of the whole interface in any order, with good and bad arguments, through two handles of
// one database. What was committed must be there in the end, and the checker must find nothing.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "check/check.h"
#include "czelta.h"
#include "fuzz/bad_schema.h"
#include "fuzz/commit_model.h"
#include "fuzz/found.h"
#include "fuzz/schemas.h"
#include "fuzz/session.h"
#include "fuzz/steering.h"
#include "fuzz/world.h"

using namespace zelta::fuzz;

namespace {

constexpr std::size_t kCallBytes = 12;
constexpr std::size_t kMostCalls = 80;

const char16_t* const kTableNames[] = {u"t1", u"t2", u"t3", u"t4", u"t5", u"t6"};

std::string bytesOf(const CZELTA::Object& object) {
  return {static_cast<const char*>(object.data), object.length};
}

/// A key of any index, and of any table: zeros behind it end a text.
struct Key {
  explicit Key(Steering& steering) {
    const std::uint32_t number = steering.below(40);
    std::memcpy(bytes, &number, sizeof number);
    bytes[8] = static_cast<char>(steering.byte());
  }
  char bytes[512]{};
};

class Caller {
 public:
  void run(const std::uint8_t* data, std::size_t size);
  void verify();

 private:
  using Call = void (Caller::*)(Steering&);
  void start(Form form);
  void call(Steering& steering);
  CZELTA& handle() { return *handles_[now_]; }
  template <class Operation>
  unsigned long long ask(Operation operation) {
    return watch(handle(), operation);
  }
  unsigned int someTable(Steering& steering);
  Form formOf(unsigned int table) const {
    const auto found = forms_.find(table);
    return found == forms_.end() ? Form::fixed : found->second;
  }
  /// Null instead of the argument, now and then.
  template <class Value>
  static Value* orNull(Value* value, Steering& steering) {
    return steering.once(32) ? nullptr : value;
  }

  void createDatabase(Steering& steering);
  void openDatabase(Steering& steering);
  void closeDatabase(Steering& steering);
  void members(Steering& steering);
  void getParameter(Steering& steering);
  void setParameter(Steering& steering);
  void begin(Steering& steering);
  void end(Steering& steering);
  void commit(Steering& steering);
  void abort(Steering& steering);
  void replicate(Steering& steering);
  void addTable(Steering& steering);
  void createTable(Steering& steering);
  void openTable(Steering& steering);
  void closeTable(Steering& steering);
  void removeTable(Steering& steering);
  void tableSchema(Steering& steering);
  void newObject(Steering& steering);
  void variableField(Steering& steering);
  void putValues(Steering& steering);
  bool add(unsigned int table, const std::string& content, long long id);
  void addOne(Steering& steering);
  void addMany(Steering& steering);
  void eraseMany(Steering& steering);
  void addBuffer(Steering& steering);
  void rewrite(Steering& steering);
  void read(Steering& steering);
  void readByID(Steering& steering);
  void erase(Steering& steering);
  void eraseByID(Steering& steering);
  void restore(Steering& steering);
  void search(Steering& steering);

  void verifyTable(CZELTA& handle, unsigned int table, const CommitModel::Objects& objects);

  std::unique_ptr<CZELTA> handles_[2] = {std::make_unique<CZELTA>(), std::make_unique<CZELTA>()};
  std::size_t now_ = 0;
  bool writes_[2] = {false, false};  ///< in a transaction that may write
  std::map<unsigned int, Form> forms_;
  CommitModel model_;
};

const std::u16string& databasePath() {
  static const std::u16string path = World::path("db.zlc");
  return path;
}

/// The first byte says with what to begin: most inputs have a table, and are in a transaction.
void Caller::run(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return;
  constexpr std::uint8_t kBare = 8;
  if (data[0] % kBare != 0) start(kForms[data[0] % std::size(kForms)]);
  std::size_t calls = 0;
  for (std::size_t at = 1; at < size && calls < kMostCalls; at += kCallBytes, ++calls) {
    Steering steering(std::string(data + at, data + std::min(size, at + kCallBytes)));
    call(steering);
  }
}

void Caller::start(Form form) {
  const auto must = [&](unsigned long long word) {
    zelta::fuzz::must(handle(), word, "a beginning");
  };
  must(ask([&] { return handle().CreateDatabase(databasePath().c_str()); }));
  must(ask([&] { return handle().BeginTransaction(CZELTA::TransactionExclusive, 0); }));
  FormSchema schema(form, kTableNames[0]);
  must(ask([&] { return handle().CreateTable(&schema.schema, nullptr); }));
  must(ask([&] { return handle().EndTransaction(); }));
  forms_[1] = form;
  model_.create(0, 1);
  for (now_ = 2; now_-- != 0;) {
    if (now_ == 1) {
      must(ask([&] { return handle().OpenDatabase(databasePath().c_str()); }));
    }
    must(ask([&] { return handle().BeginTransaction(CZELTA::TransactionShared, 0); }));
    must(ask([&] { return handle().OpenTable(1); }));
    writes_[now_] = true;
  }
  now_ = 0;
}

void Caller::call(Steering& steering) {
  struct Entry {
    Call call;
    const char* name;
    unsigned weight;
  };
  static constexpr Entry kCalls[] = {
      {&Caller::createDatabase, "createDatabase", 1},
      {&Caller::openDatabase, "openDatabase", 1},
      {&Caller::closeDatabase, "closeDatabase", 1},
      {&Caller::members, "members", 1},
      {&Caller::getParameter, "getParameter", 1},
      {&Caller::setParameter, "setParameter", 2},
      {&Caller::begin, "begin", 3},
      {&Caller::end, "end", 2},
      {&Caller::commit, "commit", 3},
      {&Caller::abort, "abort", 1},
      {&Caller::replicate, "replicate", 1},
      {&Caller::addTable, "addTable", 1},
      {&Caller::createTable, "createTable", 3},
      {&Caller::openTable, "openTable", 2},
      {&Caller::closeTable, "closeTable", 1},
      {&Caller::removeTable, "removeTable", 1},
      {&Caller::tableSchema, "tableSchema", 1},
      {&Caller::newObject, "newObject", 1},
      {&Caller::variableField, "variableField", 1},
      {&Caller::putValues, "putValues", 2},
      {&Caller::addOne, "addOne", 5},
      {&Caller::addMany, "addMany", 3},
      {&Caller::eraseMany, "eraseMany", 1},
      {&Caller::addBuffer, "addBuffer", 1},
      {&Caller::rewrite, "rewrite", 3},
      {&Caller::read, "read", 2},
      {&Caller::readByID, "readByID", 2},
      {&Caller::erase, "erase", 1},
      {&Caller::eraseByID, "eraseByID", 2},
      {&Caller::restore, "restore", 1},
      {&Caller::search, "search", 1},
  };
  constexpr unsigned kWeights = 52;
  std::uint32_t choice = steering.below(kWeights);
  const Entry* entry = kCalls;
  for (; choice >= entry->weight; ++entry) choice -= entry->weight;
  now_ = steering.once(4) ? 1 : 0;
  if (traces()) std::fprintf(stderr, "%zu %s\n", now_, entry->name);
  (this->*entry->call)(steering);
}

unsigned int Caller::someTable(Steering& steering) {
  return steering.once(16) ? steering.number<std::uint32_t>() : 1 + steering.byte() % 16 / 12;
}

void Caller::createDatabase(Steering& steering) {
  static const std::u16string kPaths[] = {databasePath(),
                                          World::path("new/made/x"),
                                          World::path("db"),
                                          u"",
                                          u"db",
                                          World::path(""),
                                          World::path(std::string(300, 'p')),
                                          World::path(std::string(5000, 'p'))};
  const std::u16string& path = steering.pick(kPaths);
  const char16_t* text = orNull(path.c_str(), steering);
  if (ask([&] { return handle().CreateDatabase(text); }) != 0) return;
  model_.open(now_, path != databasePath() && path != World::path("db"));
}

void Caller::openDatabase(Steering& steering) {
  static const std::u16string kPaths[] = {databasePath(),
                                          databasePath(),
                                          World::path("db"),
                                          World::path("missing"),
                                          World::path("new/made/x"),
                                          World::path("t1.zlt"),
                                          u"",
                                          u"db"};
  const std::u16string& path = steering.pick(kPaths);
  const char16_t* text = orNull(path.c_str(), steering);
  if (ask([&] { return handle().OpenDatabase(text); }) != 0) return;
  model_.open(now_, path == World::path("new/made/x"));
}

void Caller::closeDatabase(Steering&) {
  ask([&] { return handle().CloseDatabase(); });
  model_.drop(now_);
  writes_[now_] = false;
}

void Caller::members(Steering& steering) {
  unsigned int size = 0;
  unsigned int* out = orNull(&size, steering);
  if (ask([&] { return handle().GetDatabaseMembers(nullptr, out); }) != 0) return;
  std::vector<CZELTA::DatabaseMember> buffer(size / sizeof(CZELTA::DatabaseMember) + 1);
  ask([&] { return handle().GetDatabaseMembers(buffer.data(), out); });
}

void Caller::getParameter(Steering& steering) {
  const auto parameter = static_cast<CZELTA::Parameter>(steering.byte());
  long long value = 0;
  long long* out = orNull(&value, steering);
  ask([&] { return handle().GetDatabaseParameter(parameter, out); });
}

void Caller::setParameter(Steering& steering) {
  static constexpr long long kValues[] = {0, 1, 1, 2, 65535, 65536, -1, 1ll << 40};
  const auto parameter = static_cast<CZELTA::Parameter>(steering.below(7));
  const long long value = steering.pick(kValues);
  ask([&] { return handle().SetDatabaseParameter(parameter, value); });
}

void Caller::begin(Steering& steering) {
  static constexpr unsigned kModes[] = {CZELTA::TransactionShared,
                                        CZELTA::TransactionExclusive,
                                        CZELTA::TransactionShared,
                                        CZELTA::TransactionRead,
                                        CZELTA::TransactionExclusiveRead,
                                        0,
                                        99,
                                        0xFFFFFFFF};
  const unsigned mode = steering.pick(kModes);
  const unsigned timeout = steering.once(4) ? 2000 : 0;
  const auto word =
      ask([&] { return handle().BeginTransaction(static_cast<CZELTA::Mode>(mode), timeout); });
  if (word != 0) return;
  writes_[now_] = mode == CZELTA::TransactionShared || mode == CZELTA::TransactionExclusive;
  if (!steering.once(8)) ask([&] { return handle().OpenTable(1); });
}

void Caller::end(Steering&) {
  ask([&] { return handle().EndTransaction(); });
  model_.drop(now_);
  writes_[now_] = false;
}

void Caller::commit(Steering& steering) {
  const bool release = !steering.once(3);
  const auto word = ask([&] { return handle().CommitTransaction(release); });
  if (word == 0) {
    model_.commit(now_);
  } else if (writes_[now_]) {
    model_.commitFailed(now_);
  }
}

void Caller::abort(Steering& steering) {
  const bool release = !steering.once(3);
  if (ask([&] { return handle().AbortTransaction(release); }) == 0) model_.drop(now_);
}

void Caller::replicate(Steering& steering) {
  unsigned int file = 0;
  long long position = 0;
  unsigned int transaction = 0;
  char buffer[256]{};
  long long size = sizeof buffer;
  long long* room = orNull(&size, steering);
  void* bytes = orNull(static_cast<void*>(buffer), steering);
  ask([&] {
    return handle().WaitNextCommit(&file, &position, &transaction, room, bytes, steering.byte());
  });
  ask([&] {
    return handle().AppendTransaction(file, position, transaction, sizeof buffer, bytes);
  });
  unsigned int map[32]{};
  FormSchema schema(Form::fixed, u"t1");
  const auto parameter = static_cast<CZELTA::Parameter>(steering.byte());
  ask([&] { return handle().SetTableSchema(1, &schema.schema, map, parameter); });
}

void Caller::addTable(Steering& steering) {
  static const std::u16string kFolder = World::path("i/");
  static constexpr const char16_t* kNames[] = {u"t1",     u"t2",    u"t3.zlt", u"",
                                               u"../s/a", u"t2\\x", u"none"};
  const char16_t* name = orNull(steering.pick(kNames), steering);
  const unsigned int id = steering.below(5);
  const unsigned int order = steering.below(5);
  const char16_t* folder = steering.once(4) ? kFolder.c_str() : nullptr;
  ask([&] { return handle().AddTable(name, id, folder, order); });
}

void Caller::createTable(Steering& steering) {
  const Form form = steering.pick(kForms);
  FormSchema schema(form, steering.pick(kTableNames));
  const bool spoiled = steering.flag();
  if (spoiled) spoil(schema, steering);
  unsigned int id = 0;
  const CZELTA::Schema* argument = orNull(&schema.schema, steering);
  if (ask([&] { return handle().CreateTable(argument, &id); }) != 0) return;
  model_.giveUp(now_, id);
  if (!model_.isAway(now_)) forms_[id] = form;
  if (!spoiled) model_.create(now_, id);
}

void Caller::openTable(Steering& steering) {
  const unsigned int table = someTable(steering);
  ask([&] { return handle().OpenTable(table); });
}

void Caller::closeTable(Steering& steering) {
  const unsigned int table = someTable(steering);
  ask([&] { return handle().CloseTable(table); });
}

void Caller::removeTable(Steering& steering) {
  const unsigned int table = someTable(steering);
  const bool files = steering.flag();
  if (ask([&] { return handle().RemoveTable(table, files); }) == 0) model_.giveUp(now_, table);
}

void Caller::tableSchema(Steering& steering) {
  const unsigned int table = someTable(steering);
  unsigned int size = 0;
  unsigned int* out = orNull(&size, steering);
  if (ask([&] { return handle().GetTableSchema(table, nullptr, out); }) != 0) return;
  std::vector<std::uint64_t> buffer(size / 8 + 1);
  auto* schema = reinterpret_cast<CZELTA::Schema*>(buffer.data());
  ask([&] { return handle().GetTableSchema(table, schema, out); });
}

unsigned int someSize(Steering& steering) {
  static constexpr unsigned kSizes[] = {0, 0, 1, 4, 40, 1000, 100000, 0xFFFFFFF0, 0xFFFFFFFF};
  return steering.pick(kSizes);
}

void Caller::newObject(Steering& steering) {
  const unsigned int table = someTable(steering);
  const unsigned int size = someSize(steering);
  CZELTA::Object object{};
  CZELTA::Object* out = orNull(&object, steering);
  if (ask([&] { return handle().NewObject(table, out, size); }) != 0 || out == nullptr) return;
  const std::string bytes = steering.text(std::min<std::size_t>(object.length, 6));
  std::memcpy(object.data, bytes.data(), bytes.size());
  if (object.variableData != nullptr && steering.flag()) {
    static_cast<char*>(object.data)[object.length - 1] = static_cast<char>(steering.byte());
  }
}

void Caller::variableField(Steering& steering) {
  const unsigned int table = someTable(steering);
  void* value = nullptr;
  CZELTA::Object object{};
  void** valueOut = orNull(&value, steering);
  CZELTA::Object* out = orNull(&object, steering);
  const unsigned field = steering.once(8) ? steering.number<std::uint32_t>() : steering.below(7);
  if (steering.flag()) {
    ask([&] { return handle().GetVariableField(table, field, valueOut, out); });
  } else {
    const unsigned sub = steering.below(4);
    const unsigned row = steering.once(8) ? 0xFFFFFFFF : steering.below(5);
    ask([&] { return handle().GetVariableField(table, field, sub, row, valueOut, out); });
  }
  if (value != nullptr) touch(value, 1);
}

void Caller::putValues(Steering& steering) {
  const unsigned int table = someTable(steering);
  CZELTA::Object object{};
  CZELTA::Object* out = orNull(&object, steering);
  if (steering.once(4)) {
    const unsigned int size = someSize(steering);
    ask([&] { return handle().PutVariableValues(table, out, size); });
    return;
  }
  const unsigned field = steering.below(8);
  const unsigned count = steering.once(8) ? 0xFFFFFFFF : steering.below(4);
  const std::string bytes =
      steering.text(1 + steering.below(6)) + std::string(steering.below(30), 0);
  const char* values = orNull(bytes.c_str(), steering);
  const auto size = static_cast<unsigned>(bytes.size());
  ask([&] { return handle().PutVariableValues(table, values, size, field, count, out); });
}

long long someID(Steering& steering) {
  static constexpr long long kFar[] = {
      -1,         1000,        0x7FFFFFFF, 0x80000000,
      0xFFFFFFFF, 0x100000001, 1ll << 62,  std::numeric_limits<long long>::min()};
  return steering.once(32) ? steering.pick(kFar) : 1 + steering.below(24);
}

/// Whether there was a buffer for it.
bool Caller::add(unsigned int table, const std::string& content, long long id) {
  const Form form = formOf(table);
  CZELTA::Object object{};
  if (ask([&] { return handle().NewObject(table, &object, 0); }) != 0) return false;
  if (ask([&] { return putContent(handle(), table, form, content, object); }) != 0) return true;
  if (ask([&] { return handle().AddObject(table, &object, id); }) != 0) return true;
  expect(object.objectID > 0 && (id == 0 || object.objectID == id), "an object with another ID");
  model_.put(now_, table, object.objectID, bytesOf(object));
  return true;
}

void Caller::addOne(Steering& steering) {
  const unsigned int table = someTable(steering);
  static constexpr std::size_t kLengths[] = {0, 3, 15, 15, 40, 200, 3000};
  const std::size_t length = steering.pick(kLengths);
  const std::string content = contentOf(formOf(table), steering.below(60), length);
  const long long id = steering.once(4) ? 1 + steering.below(300) : 0;
  add(table, content, id);
}

/// Enough to give trees another level.
void Caller::addMany(Steering& steering) {
  const unsigned int table = someTable(steering);
  const std::uint32_t first = steering.below(200);
  const std::uint32_t count = steering.below(48);
  const std::size_t length = steering.below(160);
  for (std::uint32_t i = 0; i < count; ++i) {
    if (!add(table, contentOf(formOf(table), first + i, length), 0)) return;
  }
}

void Caller::eraseMany(Steering& steering) {
  const unsigned int table = someTable(steering);
  const std::uint32_t count = steering.below(48);
  const auto mode = steering.flag() ? CZELTA::ReadFirst : CZELTA::ReadLast;
  const unsigned index = steering.below(3);
  for (std::uint32_t i = 0; i < count; ++i) {
    CZELTA::Object object{};
    const auto word =
        ask([&] { return handle().DeleteObject(table, mode, &object, index, nullptr, nullptr); });
    if (word != 0) return;
    model_.erase(now_, table, object.objectID);
  }
}

/// Whatever the buffer holds.
void Caller::addBuffer(Steering& steering) {
  const unsigned int table = someTable(steering);
  CZELTA::Object object{};
  if (ask([&] { return handle().AddObject(table, &object, 0); }) != 0) return;
  model_.put(now_, table, object.objectID, bytesOf(object));
}

void Caller::rewrite(Steering& steering) {
  const unsigned int table = someTable(steering);
  const long long id = someID(steering);
  CZELTA::Object object{};
  const bool reads = !steering.once(8);
  if (reads && ask([&] { return handle().ReadObject(table, id, &object); }) != 0) return;
  if (reads && !steering.once(4)) {
    const Form form = formOf(table);
    const std::string content = contentOf(form, steering.below(60), steering.below(64));
    ask([&] { return putContent(handle(), table, form, content, object); });
  }
  if (ask([&] { return handle().RewriteObject(table, &object); }) != 0) return;
  model_.put(now_, table, object.objectID, bytesOf(object));
}

void Caller::read(Steering& steering) {
  static constexpr unsigned kFlags[] = {0, CZELTA::ReadNoLock, CZELTA::ReadNoWait,
                                        CZELTA::ReadShortWait, 0xFFFFFE00};
  const unsigned int table = someTable(steering);
  const unsigned mode =
      steering.once(16) ? steering.number<std::uint16_t>() : CZELTA::ReadEqual + steering.below(9);
  const unsigned flags = steering.pick(kFlags);
  const unsigned index = steering.below(5);
  const Key key(steering);
  CZELTA::Object object{};
  unsigned int entry = 0;
  CZELTA::Object* out = orNull(&object, steering);
  const auto word = ask([&] {
    return handle().ReadObject(table, static_cast<CZELTA::Mode>(mode | flags), out, index,
                               orNull(key.bytes, steering), &entry);
  });
  if (word == 0 && out != nullptr) touch(object.data, object.length);
}

/// A read with a lock sees what the model says.
void Caller::readByID(Steering& steering) {
  const unsigned int table = someTable(steering);
  const long long id = someID(steering);
  CZELTA::Object object{};
  const auto word = ask([&] { return handle().ReadObject(table, id, &object); });
  if (!writes_[now_] || !model_.knows(now_, table)) return;
  const std::string* bytes = model_.seenBy(now_, table, id);
  if (word == 0) {
    expect(bytes != nullptr, "an object is there that nobody has committed");
    expect(object.objectID == id && bytesOf(object) == *bytes, "an object holds something else");
  }
  if (word == own(32)) expect(bytes == nullptr, "an object is gone");
}

void Caller::erase(Steering& steering) {
  const unsigned int table = someTable(steering);
  const auto mode = static_cast<CZELTA::Mode>(CZELTA::ReadEqual + steering.below(9));
  const unsigned index = steering.below(4);
  const Key key(steering);
  CZELTA::Object object{};
  unsigned int entry = 0;
  const auto word =
      ask([&] { return handle().DeleteObject(table, mode, &object, index, key.bytes, &entry); });
  if (word == 0) model_.erase(now_, table, object.objectID);
}

void Caller::eraseByID(Steering& steering) {
  const unsigned int table = someTable(steering);
  const long long id = steering.once(8) ? 0 : someID(steering);
  CZELTA::Object object{};
  if (ask([&] { return handle().DeleteObject(table, id, &object); }) != 0) return;
  expect(id == 0 || object.objectID == id, "another object is deleted");
  model_.erase(now_, table, object.objectID);
}

void Caller::restore(Steering& steering) {
  const unsigned int table = someTable(steering);
  const long long id = steering.once(16) ? 0 : someID(steering);
  const bool unlock = steering.flag();
  if (ask([&] { return handle().RestoreObject(table, id, unlock); }) != 0) return;
  if (id == 0) {
    model_.giveUp(now_, table);
  } else {
    model_.restore(now_, table, id);
  }
}

void Caller::search(Steering& steering) {
  const unsigned int table = someTable(steering);
  const unsigned index = steering.below(5);
  const Key key(steering);
  const Key words(steering);
  const auto mode = static_cast<CZELTA::Mode>(steering.byte());
  long long count = 0;
  ask([&] {
    return handle().SearchIndex(table, index, orNull(key.bytes, steering), words.bytes, mode,
                                orNull(&count, steering));
  });
  ask([&] { return handle().SearchIndex(table, index, key.bytes, 7u, mode, &count); });
}

/// All handles are closed. Whether there is a database, and which, is up to the calls.
void Caller::verify() {
  for (auto& handle : handles_) handle.reset();
  if (model_.committed().empty()) return;
  std::string findings;
  for (const zelta::CheckFinding& finding : zelta::checkDatabase(databasePath())) {
    findings += zelta::describe(finding) + "\n";
  }
  if (!findings.empty()) found("the checker has findings:\n" + findings);
  CZELTA reader;
  must(reader, watch(reader, [&] { return reader.OpenDatabase(databasePath().c_str()); }),
       "the database cannot be opened");
  must(reader, watch(reader, [&] { return reader.BeginTransaction(CZELTA::TransactionRead, 0); }),
       "no transaction");
  for (const auto& [table, objects] : model_.committed()) verifyTable(reader, table, objects);
}

void Caller::verifyTable(CZELTA& reader, unsigned int table, const CommitModel::Objects& objects) {
  const unsigned int id = table;
  must(reader, watch(reader, [&] { return reader.OpenTable(id); }), "a table is gone");
  CommitModel::Objects seen;
  CZELTA::Object object{};
  const auto read = [&](CZELTA::Mode mode, unsigned index) {
    const auto word = watch(
        reader, [&] { return reader.ReadObject(id, mode, &object, index, nullptr, nullptr); });
    // A table's index file is made when the first objects are committed.
    const bool blank = word == windows(2) && index != 0 && objects.empty();
    if (word != own(32) && !blank) must(reader, word, "an object cannot be read");
    return word == 0;
  };
  for (CZELTA::Mode mode = CZELTA::ReadFirst; read(mode, 0); mode = CZELTA::ReadNext) {
    seen[object.objectID] = bytesOf(object);
  }
  expect(seen == objects, "the objects are not those that were committed");
  if (formOf(table) == Form::bare) return;
  CommitModel::Objects byKey;
  for (CZELTA::Mode mode = CZELTA::ReadFirst; read(mode, 1); mode = CZELTA::ReadNext) {
    byKey[object.objectID] = bytesOf(object);
    expect(byKey.size() <= seen.size(), "an index has too many keys");
  }
  expect(byKey == objects, "an index does not have the objects that were committed");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  World::get();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  beginInput();
  World::get().lay({});
  {
    Caller caller;
    caller.run(data, size);
    caller.verify();
  }
  World::get().check();
  return 0;
}
