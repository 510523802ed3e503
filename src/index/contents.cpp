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
  avl::Walk<UInt64AVLTree> edited(objects.edited);
  while (const UInt64AVLTree* node = edited.next()) {
    ContentChange rewritten{node->key, {}, {}};
    ZELTA_TRY(versions.readBefore(node->key, &rewritten.before));
    ZELTA_TRY(versions.readAfter(node->key, &rewritten.after));
    ZELTA_TRY(change(rewritten));
  }
  avl::Walk<UInt64AVLTree> added(objects.added);
  while (const UInt64AVLTree* node = added.next()) {
    ContentChange fresh{node->key, {}, {}};
    ZELTA_TRY(versions.readAfter(node->key, &fresh.after));
    ZELTA_TRY(change(fresh));
  }
  return {};
}

Result ContentUpdates::finish() {
  for (const std::unique_ptr<ContentUpdate>& update : updates_) ZELTA_TRY(update->finish());
  updates_.clear();
  return {};
}

}  // namespace zelta
