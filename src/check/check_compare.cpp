// The keys that the objects of a table have, against those of its indexes.

#include <algorithm>

#include "check/check_table.h"

namespace zelta::check {

namespace {

constexpr std::uint64_t kNamed = 10;  // more of a kind are only counted
/// Keys on each side that are compared one by one at most.
constexpr std::uint64_t kCompared = 65536;

/// Chooses the groups in which two sides differ, as far as there is room for their keys.
std::vector<bool> chooseGroups(const KeyDigest& keys, const KeyDigest& entries,
                               KeyComparison& comparison) {
  std::vector<bool> chosen(KeyDigest::kGroups);
  std::uint64_t left = kCompared;
  for (std::size_t group = 0; group < KeyDigest::kGroups; ++group) {
    if (keys.agrees(entries, group)) continue;
    const std::uint64_t wanted = keys.count(group);
    const std::uint64_t there = entries.count(group);
    chosen[group] = !comparison.isPart && std::max(wanted, there) <= left;
    if (chosen[group]) {
      left -= std::max(wanted, there);
      continue;
    }
    comparison.isPart = true;
    if (wanted >= there) comparison.missing += std::max<std::uint64_t>(wanted - there, 1);
    if (there >= wanted) comparison.unowned += std::max<std::uint64_t>(there - wanted, 1);
  }
  return chosen;
}

}  // namespace

/// Calls `take(key)` for all keys of all objects in the digests. What is wrong with them has been
/// reported.
template <class Take>
void TableCheck::forEachSoundKey(std::uint32_t index, Take take) {
  const KindCheck* kind = findKindCheck(table_, index);
  CheckedKeys keys;
  for (const std::uint64_t position : sound_) {
    const std::uint64_t head = facts_.fixed() ? 0 : 8;
    const std::uint32_t length =
        facts_.fixed() ? facts_.fixedAreaSize : file_.number<std::uint32_t>(position + 4);
    const char* object = file_.view(position + head, length);
    if (object == nullptr) continue;
    std::uint64_t id = 0;
    std::memcpy(&id, object + 2, facts_.headerSize - 2);
    keys.clear();
    static_cast<void>(kind->keysOf(table_, index, {id, position, object, length}, keys));
    for (const CheckedKey& key : keys) take(key);
  }
}

/// An object may have these keys, and the index does not say so.
void TableCheck::leaveOut(std::uint32_t index, const HashSet& ofAnyObject) {
  KeySide& side = keys_[index];
  side.digest = KeyDigest();
  forEachSoundKey(index, [&](const CheckedKey& key) {
    if (ofAnyObject.count(key.hash) == 0) side.digest.add(key.hash, key.objectID);
  });
  std::erase_if(side.changing,
                [&](const CheckedKey& key) { return ofAnyObject.count(key.hash) != 0; });
}

/// Every key of an object has an entry, and every entry an object with its key.
void TableCheck::compareEntries(CheckFile& file, std::uint32_t index, const TreePlace& place,
                                const IndexEntries& entries) {
  if (!entries.ofAnyObject.empty()) leaveOut(index, entries.ofAnyObject);
  const KeyDigest& digest = keys_[index].digest;
  KeyComparison comparison;
  const std::vector<bool> chosen = chooseGroups(digest, entries.digest, comparison);
  comparison.keys = std::move(keys_[index].changing);
  comparison.entries = entries.changing;
  for (std::size_t group = 0; group < KeyDigest::kGroups; ++group) {
    if (digest.agrees(entries.digest, group)) findings_.counts.keys += digest.count(group);
  }
  if (std::find(chosen.begin(), chosen.end(), true) != chosen.end()) {
    const auto isChosen = [&](std::uint64_t hash) { return chosen[KeyDigest::groupOf(hash)]; };
    forEachSoundKey(index, [&](const CheckedKey& key) {
      if (isChosen(key.hash) && entries.ofAnyObject.count(key.hash) == 0) {
        comparison.keys.push_back(key);
      }
    });
    Findings known = findings_.without();
    std::vector<Extent> pages;
    const EntryVisitor visit = [&](const TreeEntry& entry) {
      if (entry.ofAnyObject || !isChosen(entry.hash) || isChanging(entry.objectID)) return;
      comparison.entries.push_back({entry.hash, entry.objectID, entry.offset});
    };
    findKindCheck(table_, index)->walk({known, file, place, pages, visit});
  }
  compareKeys(file, index, place.rootOffset, comparison);
}

/// One by one.
void TableCheck::compareKeys(const CheckFile& file, std::uint32_t index, std::uint64_t rootOffset,
                             KeyComparison& comparison) {
  CheckedKeys& keys = comparison.keys;
  CheckedKeys& entries = comparison.entries;
  std::sort(keys.begin(), keys.end(), isBefore);
  std::sort(entries.begin(), entries.end(), isBefore);
  std::uint64_t missing = 0;
  std::uint64_t unowned = 0;
  std::uint64_t ahead = 0;
  const std::string name = "index " + text(index) + ": ";
  auto key = keys.begin();
  auto entry = entries.begin();
  while (key != keys.end() || entry != entries.end()) {
    const bool lacking = entry == entries.end() || (key != keys.end() && isBefore(*key, *entry));
    const bool alone = !lacking && (key == keys.end() || isBefore(*entry, *key));
    if (alone) {
      if (unowned++ < kNamed) {
        findings_.damage(file, entry->offset,
                         name + "object " + text(entry->objectID) + " has no such key");
      }
    } else if (key->commit != 0) {
      PendingCommit& commit = commits_[key->commit - 1];
      const bool changed = key->comes != lacking;
      (changed ? commit.keysAhead : commit.keysBehind) = true;
      if (changed) ++ahead;
    } else if (lacking && missing++ < kNamed) {
      findings_.damage(file_, key->offset,
                       name + "key of object " + text(key->objectID) + " is missing");
    }
    if (!lacking && !alone) ++findings_.counts.keys;
    if (!alone) ++key;
    if (!lacking) ++entry;
  }
  if (missing > kNamed || unowned > kNamed || comparison.isPart) {
    findings_.damage(file, rootOffset,
                     name + (comparison.isPart ? "at least " : "") +
                         text(missing + comparison.missing) + " keys are missing, " +
                         text(unowned + comparison.unowned) + " belong to no object");
  }
  if (ahead != 0) {
    findings_.pending(file, rootOffset,
                      name + text(ahead) + " keys are changed, the objects are still to follow");
  }
}

/// An index file changes in one step: it cannot have one key of a commit and lack another.
void TableCheck::checkCommits(const CheckFile& file) {
  for (const PendingCommit& commit : commits_) {
    if (!commit.keysAhead || !commit.keysBehind) continue;
    findings_.damage(file, 0,
                     "of the keys that transaction " + text(commit.number) +
                         " changes some are changed and some are not");
  }
}

}  // namespace zelta::check
