#include "model/model_handle.h"

#include <cstdlib>
#include <iostream>

#include "model/failing_call.h"

namespace zelta::testing {

namespace {

constexpr unsigned kPatience = 10000;  // ms

std::string told(const char* what, const Request& request) {
  return std::string(what) + " mode " + std::to_string(request.mode) +
         (request.noLock ? " without lock" : "") + " index " + std::to_string(request.index) +
         " ID " + std::to_string(request.id);
}

CZELTA::Mode withFlags(CZELTA::Mode mode, bool noLock) {
  mode = mode | CZELTA::ReadNoWait;
  return noLock ? mode | CZELTA::ReadNoLock : mode;
}

}  // namespace

void makeModelTable(const std::u16string& path, const TableShape& shape) {
  CZELTA db;
  ASSERT_DONE(db, db.CreateDatabase(path.c_str()));
  ASSERT_DONE(db, db.BeginTransaction(CZELTA::TransactionExclusive, kPatience));
  SchemaRecords records(shape.fields(), shape.indexSpecs(), shape.flags());
  records.schema.lockIndex = shape.lockIndex;
  records.schema.tableId = kModelTable;
  ASSERT_DONE(db, db.CreateTable(&records.schema, nullptr));
  if (shape.keepLogs) {
    ASSERT_DONE(db, db.SetDatabaseParameter(CZELTA::ParameterKeepLogFiles, 1));
  }
  ASSERT_DONE(db, db.EndTransaction());
  if (shape.indexes.empty()) return;
  // The index file comes with the first who may write.
  ASSERT_DONE(db, db.BeginTransaction(CZELTA::TransactionShared, kPatience));
  ASSERT_DONE(db, db.OpenTable(kModelTable));
  EXPECT_EQ(db.ReadObject(kModelTable, CZELTA::ReadFirst, nullptr, 1, nullptr, nullptr), kMissing);
  ASSERT_DONE(db, db.EndTransaction());
}

ModelHandle::ModelHandle(TableModel& table, const std::u16string& path)
    : shape_(table.shape()), model_(table), path_(path) {
  open();
}

void ModelHandle::open() { EXPECT_DONE(db, db.OpenDatabase(path_.c_str())); }

void ModelHandle::close() {
  EXPECT_EQ(db.CloseDatabase(), 0u);
  model_.end();
}

/// ZELTA_TRACE lets a run tell what it does.
bool ModelHandle::agree(const std::string& what, Word expected, Word found) {
  static const bool trace = std::getenv("ZELTA_TRACE") != nullptr;
  if (trace) {
    std::cout << this << ' ' << what << ": " << (found & 0xFFFFFFFF) << ", current "
              << model_.current() << '\n';
  }
  if (found == kGivenUp) return false;
  EXPECT_EQ(expected, found) << what << ": " << messageOf(db);
  return expected == kDone && found == kDone;
}

/// Does an operation, which may meet a failing call. It must have left nothing: it can be done
/// again, or all can be taken back.
template <class Call>
Word ModelHandle::perform(Word expected, bool mayRepeat, const Call& call) {
  const bool mayGiveUp = model_.mayWrite();
  if (trouble_ == nullptr || (*trouble_)() % 6 != 0 || (!mayRepeat && !mayGiveUp)) return call();
  Word found = kDone;
  bool struck = false;
  {
    FailingCall failing((*trouble_)() % 20, (*trouble_)() % 2 == 0);
    found = call();
    struck = failing.struck;
  }
  if (!struck || found == expected) return found;
  ++troubles_;
  if (!mayGiveUp || (mayRepeat && (*trouble_)() % 2 == 0)) return call();
  EXPECT_EQ(found >> 32, 2u) << "code " << (found & 0xFFFFFFFF) << ": " << messageOf(db);
  model_.abort(true);
  model_.spoilBuffer();
  EXPECT_DONE(db, db.AbortTransaction(true));
  return kGivenUp;
}

void ModelHandle::compareObject() {
  const Version& expected = *model_.buffer();
  EXPECT_EQ(static_cast<std::uint64_t>(object_.objectID), model_.current());
  EXPECT_EQ(object_.version, expected.version);
  const std::string bytes = shape_.bytes(expected.thing);
  ASSERT_EQ(object_.length, bytes.size());
  EXPECT_EQ(std::memcmp(object_.data, bytes.data(), bytes.size()), 0) << object_.objectID;
}

Word ModelHandle::begin(CZELTA::Mode mode) {
  const Word expected = model_.begin(mode);
  const Word found = db.BeginTransaction(mode, expected == kDone ? kPatience : 0);
  agree("begin " + std::to_string(mode), expected, found);
  if (found == kDone) {
    EXPECT_DONE(db, db.OpenTable(kModelTable));
  }
  return found;
}

void ModelHandle::end() {
  model_.end();
  agree("end", kDone, db.EndTransaction());
}

void ModelHandle::commit(bool releaseLocks) {
  const Word expected = model_.commit(releaseLocks);
  agree(releaseLocks ? "commit" : "commit with locks kept", expected,
        db.CommitTransaction(releaseLocks));
  if (expected == kDone) {
    EXPECT_EQ(messageOf(db), "No error message");
  }
}

void ModelHandle::abort(bool releaseLocks) {
  agree(releaseLocks ? "abort" : "abort with locks kept", model_.abort(releaseLocks),
        db.AbortTransaction(releaseLocks));
}

void ModelHandle::reopenTable() {
  model_.reopen();
  agree("close of the table", kDone, db.CloseTable(kModelTable));
  agree("opening of the table", kDone, db.OpenTable(kModelTable));
}

/// Puts the content into the buffer, which has an object.
void ModelHandle::fill(const Thing& thing) {
  // A field behind the last one: only the record is filled.
  ASSERT_DONE(db, db.GetVariableField(kModelTable, 1000, nullptr, &object_));
  if (shape_.variableFields() != 0) {
    const std::string values = shape_.variableBytes(thing);
    ASSERT_DONE(
        db, db.PutVariableValues(kModelTable, values.data(), static_cast<unsigned>(values.size()),
                                 0, shape_.variableFields(), &object_));
  }
  const std::string fixed = shape_.fixedBytes(thing);
  std::memcpy(object_.data, fixed.data(), fixed.size());
}

Word ModelHandle::add(const Thing& thing, std::uint64_t id, bool inNewObject) {
  if (inNewObject || !model_.buffer()) {
    EXPECT_DONE(db, db.NewObject(kModelTable, &object_, 0));
    model_.newObject(thing);
  } else {
    model_.change(thing);
  }
  fill(thing);
  const Word expected = model_.add(id);
  const Word found = perform(expected, true, [&] {
    return db.AddObject(kModelTable, &object_, static_cast<long long>(id));
  });
  if (agree("add " + std::to_string(id), expected, found)) compareObject();
  return found;
}

Word ModelHandle::rewrite(const Thing& thing) {
  if (model_.buffer()) {
    model_.change(thing);
    fill(thing);
  }
  const Word expected = model_.rewrite();
  const Word found =
      perform(expected, true, [&] { return db.RewriteObject(kModelTable, &object_); });
  if (agree("rewrite", expected, found)) compareObject();
  return found;
}

Word ModelHandle::read(const Request& request, const std::string& image) {
  const Word expected = model_.read(request);
  const bool keyed = request.hasPivot();
  const CZELTA::Mode mode = withFlags(request.mode, request.noLock);
  unsigned entry = 77;
  const bool byPlace = request.mode == CZELTA::ReadNext || request.mode == CZELTA::ReadPrevious;
  const Word found = perform(expected, !byPlace, [&] {
    return request.index == 0 && request.mode == CZELTA::ReadEqual
               ? db.ReadObject(kModelTable, static_cast<long long>(request.id), mode, &object_)
               : db.ReadObject(kModelTable, mode, &object_, request.index,
                               keyed ? image.data() : nullptr, &entry);
  });
  if (!agree(told("read", request), expected, found)) return found;
  compareObject();
  if (entry != 77) {
    EXPECT_EQ(entry, model_.entry());
  }
  return found;
}

Word ModelHandle::erase(const Request& request, const std::string& image) {
  const Word expected = model_.erase(request);
  const Word found = perform(expected, false, [&] {
    return db.DeleteObject(kModelTable, withFlags(request.mode, false), &object_, request.index,
                           image.data(), nullptr);
  });
  if (agree(told("delete", request), expected, found)) compareObject();
  return found;
}

Word ModelHandle::eraseCurrent() {
  const bool wouldWait = model_.lockedElsewhere(model_.current());
  const Word expected = model_.eraseCurrent();
  const std::uint64_t none = 0;
  const Word found = perform(expected, false, [&] {
    return wouldWait ? db.DeleteObject(kModelTable, withFlags(CZELTA::ReadEqual, false), &object_,
                                       0, &none, nullptr)
                     : db.DeleteObject(kModelTable, 0, &object_);
  });
  if (agree("delete of the current object", expected, found)) compareObject();
  return found;
}

Word ModelHandle::restore(std::uint64_t id, bool unlock) {
  const Word expected = model_.restore(id, unlock);
  const Word found = perform(expected, true, [&] {
    return db.RestoreObject(kModelTable, static_cast<long long>(id), unlock);
  });
  agree("restore " + std::to_string(id) + (unlock ? " unlocked" : ""), expected, found);
  return found;
}

void ModelHandle::search(std::size_t number, const Shapes& like) {
  const std::set<std::uint64_t> expected = model_.findable(number, like);
  const auto index = static_cast<unsigned>(shape_.indexes.size() + number + 1);
  const ShapeKind kind = shape_.searches()[number];
  const std::string what = "search of index " + std::to_string(index);
  const Word word =
      perform(kDone, true, [&] { return searchLike(db, kModelTable, index, kind, like); });
  if (!agree(what, kDone, word)) return;
  CZELTA::Mode mode = CZELTA::ReadFirst | CZELTA::ReadNoLock;
  const auto next = [&] {
    return db.ReadObject(kModelTable, mode, &object_, index, nullptr, nullptr);
  };
  for (const std::uint64_t id : expected) {
    if (!agree(what + " for " + std::to_string(id), model_.goTo(id), next())) return;
    compareObject();
    mode = CZELTA::ReadNext | CZELTA::ReadNoLock;
  }
  agree(what + " for more", kMissing, next());
}

namespace {

void compareWalk(CZELTA& db, const TableShape& shape, const TableModel& table, unsigned index,
                 const std::vector<std::uint64_t>& ids, bool upward) {
  CZELTA::Object object;
  CZELTA::Mode mode = upward ? CZELTA::ReadFirst : CZELTA::ReadLast;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    const std::uint64_t id = upward ? ids[i] : ids[ids.size() - 1 - i];
    ASSERT_DONE(db, db.ReadObject(kModelTable, mode, &object, index, nullptr, nullptr));
    ASSERT_EQ(static_cast<std::uint64_t>(object.objectID), id) << "index " << index;
    const Version& expected = table.objects().at(id);
    const std::string bytes = shape.bytes(expected.thing);
    ASSERT_EQ(object.length, bytes.size());
    ASSERT_EQ(std::memcmp(object.data, bytes.data(), bytes.size()), 0) << id;
    ASSERT_EQ(object.version, expected.version);
    mode = upward ? CZELTA::ReadNext : CZELTA::ReadPrevious;
  }
  ASSERT_EQ(db.ReadObject(kModelTable, mode, &object, index, nullptr, nullptr), kMissing)
      << "index " << index << " has more";
}

}  // namespace

void compareAll(CZELTA& db, const TableModel& table) {
  ASSERT_DONE(db, db.BeginTransaction(CZELTA::TransactionRead, 0));
  ASSERT_DONE(db, db.OpenTable(kModelTable));
  const TableShape& shape = table.shape();
  std::vector<std::uint64_t> ids;
  for (const auto& [id, version] : table.objects()) ids.push_back(id);
  compareWalk(db, shape, table, 0, ids, true);
  compareWalk(db, shape, table, 0, ids, false);
  for (std::size_t i = 0; i < shape.indexes.size(); ++i) {
    ids.clear();
    for (const auto& [key, id] : table.keys(i).entries()) ids.push_back(id);
    compareWalk(db, shape, table, static_cast<unsigned>(i + 1), ids, true);
    compareWalk(db, shape, table, static_cast<unsigned>(i + 1), ids, false);
  }
  const std::vector<ShapeKind> searches = shape.searches();
  for (std::size_t i = 0; i < searches.size(); ++i) {
    ShapedObjects objects;
    for (const auto& [id, version] : table.objects()) {
      objects[id] = shape.shapesOf(i, version.thing);
    }
    const auto index = static_cast<unsigned>(shape.indexes.size() + i + 1);
    compareSearches(db, kModelTable, index, {searches[i]}, objects);
  }
  ASSERT_DONE(db, db.EndTransaction());
}

}  // namespace zelta::testing
