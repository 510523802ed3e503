// The keys that the objects of a table have, and what commits that are still to be carried out
// change of them.
//
// A commit changes the index file in one step, and then the table file in another. So of the keys
// that it takes away or brings the index file has all changes or none; which, nobody knows before.

#include <algorithm>
#include <iterator>

#include "check/check_table.h"

namespace zelta::check {

CheckedKeys TableCheck::keysOf(std::uint32_t index, const CheckedObject& object) {
  CheckedKeys keys;
  const KindCheck* kind = findKindCheck(table_, index);
  if (kind != nullptr && !kind->keysOf(table_, index, object, keys)) {
    findings_.damage(file_, object.position,
                     "object " + text(object.id) + " has no key in index " + text(index));
  }
  return keys;
}

/// The commit that is still to change an object that is there: whose mark stands in its slot.
const PendingCommit* TableCheck::commitOf(std::uint64_t id) {
  if (commits_.empty()) return nullptr;
  const auto stamp = slots_.number<std::uint32_t>(facts_.slot(id) + 8);
  const auto found = std::find_if(commits_.begin(), commits_.end(), [&](const PendingCommit& c) {
    return c.number == stamp && (c.images.count(id) != 0 || c.deleted.count(id) != 0);
  });
  return found == commits_.end() ? nullptr : &*found;
}

/// Whether a commit that is still to be carried out has anything to do with an object.
bool TableCheck::isChanging(std::uint64_t id) const {
  return std::any_of(commits_.begin(), commits_.end(), [&](const PendingCommit& commit) {
    return commit.images.count(id) != 0 || commit.deleted.count(id) != 0;
  });
}

/// A key that the index must have.
void TableCheck::takeKey(std::uint32_t index, const CheckedKey& key) {
  if (isChanging(key.objectID)) {
    keys_[index].changing.push_back(key);
  } else {
    keys_[index].digest.add(key.hash, key.objectID);
  }
}

/// The bytes of an image, good until the log is looked at again; null if they are no object.
const char* TableCheck::viewImage(const PendingCommit& commit, std::uint64_t id) {
  const PendingCommit::Image image = commit.images.at(id);
  const char* object = commit.log->view(image.position, image.length);
  const ObjectForm form{table_.schema, facts_.headerSize, facts_.fixedAreaSize};
  if (object != nullptr && !findFault(form, object, image.length)) return object;
  findings_.damage(*commit.log, image.position, "object " + text(id) + " cannot be brought in");
  return nullptr;
}

/// Notes the keys of an object that is there. Those that a commit still takes away or brings are
/// noted with it; those that it leaves alone must be in the index in any case.
void TableCheck::takeKeys(std::uint64_t id, std::uint64_t position, const char* object,
                          std::uint32_t length) {
  const PendingCommit* commit = commitOf(id);
  const bool rewritten = commit != nullptr && commit->images.count(id) != 0;
  const char* image = rewritten ? viewImage(*commit, id) : nullptr;
  if (!isChanging(id) && table_.indexCount != 0) sound_.push_back(position);
  for (std::uint32_t i = 0; i < table_.indexCount; ++i) {
    CheckedKeys old = keysOf(i, {id, position, object, length});
    if (commit == nullptr) {
      for (const CheckedKey& key : old) takeKey(i, key);
      continue;
    }
    CheckedKeys later;
    if (image != nullptr) {
      later = keysOf(i, {id, position, image, commit->images.at(id).length});
    }
    std::sort(old.begin(), old.end(), isBefore);
    std::sort(later.begin(), later.end(), isBefore);
    std::set_intersection(old.begin(), old.end(), later.begin(), later.end(),
                          std::back_inserter(keys_[i].changing), isBefore);
    addChanged(i, old, later, *commit, false);
    addChanged(i, later, old, *commit, true);
  }
}

/// Notes the keys that `from` has and `without` lacks as changed by a commit.
void TableCheck::addChanged(std::uint32_t index, const CheckedKeys& from,
                            const CheckedKeys& without, const PendingCommit& commit, bool comes) {
  CheckedKeys changed;
  std::set_difference(from.begin(), from.end(), without.begin(), without.end(),
                      std::back_inserter(changed), isBefore);
  for (CheckedKey& key : changed) {
    key.commit = static_cast<std::uint32_t>(&commit - commits_.data()) + 1;
    key.comes = comes;
    keys_[index].changing.push_back(key);
  }
}

/// Of an object whose place is there already.
void TableCheck::takeImageKeys(const PendingCommit& commit, std::uint64_t id,
                               std::uint64_t position) {
  const char* image = viewImage(commit, id);
  if (image == nullptr) return;
  for (std::uint32_t i = 0; i < table_.indexCount; ++i) {
    for (const CheckedKey& key : keysOf(i, {id, position, image, commit.images.at(id).length})) {
      takeKey(i, key);
    }
  }
}

/// Of objects that have no place yet.
void TableCheck::takeNewKeys() {
  constexpr std::uint64_t kFree = std::uint64_t{1} << 63;
  for (const PendingCommit& commit : commits_) {
    for (const auto& [id, place] : commit.images) {
      const bool there =
          id <= facts_.highestID && (slots_.number<std::uint64_t>(facts_.slot(id)) & kFree) == 0;
      const char* image = there ? nullptr : viewImage(commit, id);
      for (std::uint32_t i = 0; image != nullptr && i < table_.indexCount; ++i) {
        addChanged(i, keysOf(i, {id, facts_.slot(id), image, place.length}), {}, commit, true);
      }
    }
  }
}

}  // namespace zelta::check
