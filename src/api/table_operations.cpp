// Tables and their schemas.

#include "api/operation.h"
#include "schema/table_create.h"
#include "schema/table_lifecycle.h"

using namespace zelta;

unsigned long long CZELTA::AddTable(const char16_t* fileName, unsigned int table,
                                    const char16_t* directory, unsigned int lockOrder) {
  if (metaData_ == nullptr) return kNullHandle;
  clearError(*metaData_);
  StateCheck check(*metaData_);
  if (check.exclusive().mayWrite().require(fileName != nullptr, Own::tableName).failed()) {
    return check.word();
  }
  return perform(*metaData_, false, [&] {
    return addTable({*metaData_, tables_}, fileName, table, directory, lockOrder, true);
  });
}

unsigned long long CZELTA::CreateTable(const Schema* schema, unsigned int* table) {
  clearError(*metaData_);
  const bool named = schema != nullptr && schema->tableName != nullptr && schema->tableName[0] != 0;
  StateCheck check(*metaData_);
  if (check.open().exclusive().mayWrite().require(named, Own::tableName).failed())
    return check.word();
  return perform(*metaData_, false, [&] {
    return createTable({*metaData_, tables_}, schema, table, true);
  });
}

unsigned long long CZELTA::OpenTable(unsigned int table) {
  if (metaData_ == nullptr) return kNullHandle;
  clearError(*metaData_);
  StateCheck check(*metaData_);
  if (check.transaction().ownThread().failed()) return check.word();
  return perform(*metaData_, false, [&] { return openTable({*metaData_, tables_}, table); });
}

unsigned long long CZELTA::CloseTable(unsigned int table) {
  clearError(*metaData_);
  Table* open = nullptr;
  StateCheck check(*metaData_);
  if (check.transaction().ownThread().table(tables_, table, open).failed()) return check.word();
  return perform(*metaData_, false, [&] { return closeTable(tables_, *open); });
}

unsigned long long CZELTA::RemoveTable(unsigned int table, bool deleteFiles) {
  clearError(*metaData_);
  StateCheck check(*metaData_);
  if (check.exclusive().mayWrite().failed()) return check.word();
  return perform(*metaData_, false, [&] {
    return removeTable({*metaData_, tables_}, table, deleteFiles, true);
  });
}

unsigned long long CZELTA::GetTableSchema(unsigned int table, Schema* schema, unsigned int* size) {
  clearError(*metaData_);
  Table* open = nullptr;
  StateCheck check(*metaData_);
  if (check.transaction()
          .parameter(schema != nullptr || size != nullptr)
          .table(tables_, table, open)
          .failed()) {
    return check.word();
  }
  return perform(*metaData_, false, [&] { return getTableSchema(*open, schema, size); });
}

namespace {

bool anyEdits(const UInt32AVLTree* node) {
  if (node == nullptr) return false;
  return static_cast<const Table*>(node)->hasEdits() || anyEdits(node->left) ||
         anyEdits(node->right);
}

}  // namespace

unsigned long long CZELTA::SetTableSchema(unsigned int, const Schema*, const unsigned int*,
                                          Parameter) {
  clearError(*metaData_);
  StateCheck check(*metaData_);
  return check.exclusive()
      .mayWrite()
      .require(!anyEdits(tables_), Own::pendingEdits)
      .require(false, Own::context)
      .word();
}
