// Objects and searches.

#include "api/operation.h"
#include "objects/change/add_object.h"
#include "objects/change/delete_object.h"
#include "objects/change/restore_object.h"
#include "objects/change/rewrite_object.h"
#include "objects/object_buffer.h"
#include "objects/put_values.h"
#include "objects/read/read_object.h"
#include "objects/search/search_index.h"

using namespace zelta;

unsigned long long CZELTA::NewObject(unsigned int table, Object* object, unsigned int size) {
  clearError(*metaData_);
  Table* open = nullptr;
  StateCheck check(*metaData_);
  if (check.transaction().ownThread().table(tables_, table, open).failed()) return check.word();
  return perform(*metaData_, false, [&] { return newObject(*open, object, size); });
}

unsigned long long CZELTA::GetVariableField(unsigned int table, unsigned int field, void** value,
                                            Object* object) {
  clearError(*metaData_);
  Table* open = nullptr;
  StateCheck check(*metaData_);
  if (check.transaction().table(tables_, table, open).failed()) return check.word();
  return perform(*metaData_, false, [&] { return getVariableField(*open, field, value, object); });
}

unsigned long long CZELTA::GetVariableField(unsigned int table, unsigned int field,
                                            unsigned int subField, unsigned int subRecord,
                                            void** value, Object* object) {
  clearError(*metaData_);
  Table* open = nullptr;
  StateCheck check(*metaData_);
  if (check.transaction().table(tables_, table, open).failed()) return check.word();
  return perform(*metaData_, false, [&] {
    return getVariableField(*open, {field, subField, subRecord}, value, object);
  });
}

unsigned long long CZELTA::PutVariableValues(unsigned int table, Object* object,
                                             unsigned int size) {
  clearError(*metaData_);
  Table* open = nullptr;
  StateCheck check(*metaData_);
  if (check.transaction().ownThread().table(tables_, table, open).failed()) return check.word();
  return perform(*metaData_, false, [&] { return putVariableValues(*open, object, size); });
}

unsigned long long CZELTA::PutVariableValues(unsigned int table, const void* values,
                                             unsigned int valuesSize, unsigned int field,
                                             unsigned int count, Object* object) {
  clearError(*metaData_);
  Table* open = nullptr;
  StateCheck check(*metaData_);
  if (check.transaction().ownThread().table(tables_, table, open).failed()) return check.word();
  return perform(*metaData_, false, [&] {
    return putVariableValues(*open, {values, valuesSize, field, count}, object);
  });
}

unsigned long long CZELTA::AddObject(unsigned int table, Object* object, long long objectID) {
  clearError(*metaData_);
  Table* open = nullptr;
  StateCheck check(*metaData_);
  if (check.transaction().ownThread().mayWrite().table(tables_, table, open).failed()) {
    return check.word();
  }
  return perform(*metaData_, false, [&] {
    return addObject({*metaData_, tables_}, *open, object, objectID);
  });
}

unsigned long long CZELTA::RewriteObject(unsigned int table, Object* object) {
  clearError(*metaData_);
  Table* open = nullptr;
  StateCheck check(*metaData_);
  if (check.transaction().ownThread().mayWrite().table(tables_, table, open).failed()) {
    return check.word();
  }
  return perform(*metaData_, false, [&] {
    return rewriteObject({*metaData_, tables_}, *open, object);
  });
}

unsigned long long CZELTA::RestoreObject(unsigned int table, long long objectID, bool unlock) {
  clearError(*metaData_);
  Table* open = nullptr;
  StateCheck check(*metaData_);
  if (check.transaction().ownThread().mayWrite().table(tables_, table, open).failed()) {
    return check.word();
  }
  return perform(*metaData_, false, [&] { return restoreObject(*open, objectID, unlock); });
}

namespace {

/// Whether a read has the key that its mode needs. Only a mode without flags is asked here: what a
/// key that is missing means beside flags depends on the way to the object.
bool hasKey(const ObjectQuery& query) {
  return query.key != nullptr || query.mode < CZELTA::ReadEqual ||
         query.mode > CZELTA::ReadGreaterEqual;
}

}  // namespace

namespace {

/// What the forms of reading and of deleting have in common.
struct Request {
  MetaData& metaData;
  UInt32AVLTree*& tables;
  unsigned int table;
  ObjectQuery query;
  CZELTA::Object* object;
  unsigned int* entry;
};

unsigned long long read(Request request) {
  MetaData& metaData = request.metaData;
  clearError(metaData);
  if (request.object != nullptr) *request.object = CZELTA::Object{};
  Table* open = nullptr;
  StateCheck check(metaData);
  check.transaction().ownThread();
  ObjectQuery& query = request.query;
  if (!check.failed() && !metaData.mayWrite()) query.mode = query.mode | CZELTA::ReadNoLock;
  if (check.parameter(hasKey(query)).failed()) return check.word();
  if (request.entry != nullptr) *request.entry = 0;
  if (check.table(request.tables, request.table, open).failed()) return check.word();
  return perform(metaData, false, [&] {
    return readObject({metaData, request.tables}, *open, query, request.object, request.entry);
  });
}

unsigned long long erase(const Request& request) {
  MetaData& metaData = request.metaData;
  clearError(metaData);
  Table* open = nullptr;
  StateCheck check(metaData);
  check.transaction().ownThread().parameter((request.query.mode & CZELTA::ReadNoLock) == 0);
  if (check.parameter(hasKey(request.query)).mayWrite().failed()) return check.word();
  if (request.entry != nullptr) *request.entry = 0;
  if (check.table(request.tables, request.table, open).failed()) return check.word();
  return perform(metaData, false, [&] {
    return deleteObject({metaData, request.tables}, *open, request.query, request.object,
                        request.entry);
  });
}

}  // namespace

unsigned long long CZELTA::ReadObject(unsigned int table, Mode mode, Object* object,
                                      unsigned int index, const void* key, unsigned int* entry) {
  return read({*metaData_, tables_, table, {mode, index, key}, object, entry});
}

unsigned long long CZELTA::ReadObject(unsigned int table, long long objectID, Object* object) {
  return ReadObject(table, objectID, ReadEqual, object);
}

unsigned long long CZELTA::ReadObject(unsigned int table, long long objectID, Mode mode,
                                      Object* object) {
  return read({*metaData_,
               tables_,
               table,
               {mode | ReadEqual, 0, &objectID, IdWidth::whole},
               object,
               nullptr});
}

unsigned long long CZELTA::DeleteObject(unsigned int table, Mode mode, Object* object,
                                        unsigned int index, const void* key, unsigned int* entry) {
  return erase({*metaData_, tables_, table, {mode, index, key}, object, entry});
}

unsigned long long CZELTA::DeleteObject(unsigned int table, long long objectID, Object* object) {
  return erase(
      {*metaData_, tables_, table, {ReadEqual, 0, &objectID, IdWidth::whole}, object, nullptr});
}

unsigned long long CZELTA::SearchIndex(unsigned int table, unsigned int index, const void* key,
                                       const void* search, Mode mode, long long* count) {
  clearError(*metaData_);
  Table* open = nullptr;
  StateCheck check(*metaData_);
  if (check.transaction().ownThread().table(tables_, table, open).failed()) return check.word();
  return perform(*metaData_, false, [&] {
    return searchIndex({*metaData_, tables_}, *open,
                       {SearchQuery::Form::expression, index, key, search, 0, mode}, count);
  });
}

unsigned long long CZELTA::SearchIndex(unsigned int table, unsigned int index, const void* key,
                                       unsigned int tolerance, Mode mode, long long* count) {
  clearError(*metaData_);
  Table* open = nullptr;
  StateCheck check(*metaData_);
  if (check.transaction().ownThread().table(tables_, table, open).failed()) return check.word();
  return perform(*metaData_, false, [&] {
    return searchIndex({*metaData_, tables_}, *open,
                       {SearchQuery::Form::shape, index, key, nullptr, tolerance, mode}, count);
  });
}
