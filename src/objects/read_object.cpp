#include "objects/read_object.h"

#include "objects/object_access.h"
#include "objects/object_buffer.h"
#include "objects/read_bytes.h"

namespace zelta {

namespace {

class Read final : public ObjectAccess {
 public:
  using ObjectAccess::ObjectAccess;

 protected:
  Result work(const TableHeader_tag& header, Located& found) override {
    if (found.memoryPosition != 0) {
      ZELTA_TRY(readPendingObject(metaData_, table_, files_->manager, found));
    } else {
      ZELTA_TRY(
          readCommittedObject(metaData_, table_, header, found.objectID, found.tablePosition));
    }
    ZELTA_TRY(releaseMutex());
    const ObjectBytes object{table_.objectData, table_.objectLength};
    ZELTA_TRY(moveCursors(found, object));
    if (!request_.noLock) ZELTA_TRY(advance(found, object));
    found.newLock.keep();
    return {};
  }
};

}  // namespace

Result readObject(MetaData& metaData, UInt32AVLTree*& tables, Table& table, CZELTA::Mode mode,
                  CZELTA::Object* object, std::uint32_t index, const void* key,
                  std::uint32_t* entry, IdWidth width) {
  if (object != nullptr) *object = CZELTA::Object{};
  if (entry != nullptr) *entry = 0;
  const bool writer = metaData.mayWrite();
  const bool noLock = !writer || (mode & CZELTA::ReadNoLock) != 0;
  ReadRequest request{metaData, table, withoutFlags(mode), noLock, writer, index, key, nullptr};
  ZELTA_TRY(checkRequest(request));
  std::uint64_t id = 0;
  holdKey(request, width, id);
  PooledKey searchKey;
  ZELTA_TRY(makeSearchKey(request, searchKey));
  Read read(tables, request, mode);
  ZELTA_TRY(read.run());
  if (entry != nullptr) *entry = read.entry();
  fillObject(table, object);
  return {};
}

}  // namespace zelta
