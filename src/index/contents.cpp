#include "index/contents.h"

#include "index/kinds.h"
#include "storage/trees/avl_detail.h"

namespace zelta {

void ContentUpdates::begin(AtomicManager& manager, ContentMode mode) {
  for (std::uint32_t i = 0; i < manager.indexCount; ++i) {
    const ContentKind* kind = contentKind(manager.table, i);
    if (kind != nullptr) add(kind->begin({manager, PageFile::index, i}, mode));
  }
}

Result ContentUpdates::change(const ContentChange& change) {
  for (const std::unique_ptr<ContentUpdate>& update : updates_) ZELTA_TRY(update->change(change));
  return {};
}

Result ContentUpdates::changeAll(const TransactionObjects& objects, VersionSource& versions) {
  if (none()) return {};
  avl::Walk<UInt64AVLTree> deleted(objects.deleted);
  while (const UInt64AVLTree* node = deleted.next()) {
    ContentChange gone{node->key, {}, {}};
    ZELTA_TRY(versions.readBefore(node->key, &gone.before));
    ZELTA_TRY(change(gone));
  }
  // Both sets at once, in ascending order.
  avl::Walk<UInt64AVLTree> edited(objects.edited);
  avl::Walk<UInt64AVLTree> added(objects.added);
  const UInt64AVLTree* rewritten = edited.next();
  const UInt64AVLTree* fresh = added.next();
  while (rewritten != nullptr || fresh != nullptr) {
    const bool isNew = rewritten == nullptr || (fresh != nullptr && fresh->key < rewritten->key);
    ContentChange come{isNew ? fresh->key : rewritten->key, {}, {}};
    if (!isNew) ZELTA_TRY(versions.readBefore(come.objectID, &come.before));
    ZELTA_TRY(versions.readAfter(come.objectID, &come.after));
    ZELTA_TRY(change(come));
    const UInt64AVLTree*& next = isNew ? fresh : rewritten;
    next = isNew ? added.next() : edited.next();
  }
  return {};
}

Result ContentUpdates::finish() {
  for (const std::unique_ptr<ContentUpdate>& update : updates_) ZELTA_TRY(update->finish());
  updates_.clear();
  return {};
}

}  // namespace zelta
