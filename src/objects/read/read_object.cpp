#include "objects/read/read_object.h"

#include "objects/lock_position.h"
#include "objects/object_buffer.h"
#include "objects/read/object_access.h"
#include "objects/read/read_version.h"

namespace zelta {

namespace {

/// Reads the version that counts. The lock is kept last: up to there another pass may follow.
class Read final : public ObjectAccess {
 public:
  using ObjectAccess::ObjectAccess;

 protected:
  Result work(Located& found) override {
    ZELTA_TRY(readVersion(access_, found));
    ZELTA_TRY(releaseMutex());
    const ObjectBytes object{table_.objectData, table_.objectLength};
    ZELTA_TRY(moveCursors(found, object));
    if (!request_.noLock) ZELTA_TRY(noteObjectLock(table_, found.objectID, object));
    found.newLock.keep();
    return {};
  }
};

}  // namespace

Result readObject(const Session& session, Table& table, const ObjectQuery& query,
                  CZELTA::Object* object, std::uint32_t* entry) {
  if (object != nullptr) *object = CZELTA::Object{};
  if (entry != nullptr) *entry = 0;
  const bool noLock = !session.metaData.mayWrite() || (query.mode & CZELTA::ReadNoLock) != 0;
  ReadRequest request(table, query, noLock);
  ZELTA_TRY(request.check());
  ZELTA_TRY(request.takeKey());
  Read read(session.tables, request);
  ZELTA_TRY(read.run());
  if (entry != nullptr) *entry = read.entry();
  fillObject(table, object);
  return {};
}

}  // namespace zelta
