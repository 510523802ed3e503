#include "transaction/commit/pending_changes.h"

#include "index/kinds.h"
#include "storage/memory_file/memory_file_map.h"

namespace zelta {

Result dropPendingKeysOf(AtomicManager& manager, std::uint32_t number, bool* any) {
  struct IdSet {
    ~IdSet() { destroyAll(ids); }
    UInt64AVLTree* ids = nullptr;
  } found;
  ZELTA_TRY(collectTransaction(manager, number, &found.ids, nullptr));
  *any = found.ids != nullptr;
  return *any ? dropPendingKeys(manager, {found.ids, nullptr}) : Result{};
}

}  // namespace zelta
