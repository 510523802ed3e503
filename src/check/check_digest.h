// Digests of the keys of objects and of indexes. Most of the time both have the same keys: then two
// digests agree, and not a single key need be kept. The keys come in groups by their hashes, so
// that of a damaged index only the groups that differ are looked at one by one.

#ifndef ZELTA_CHECK_CHECK_DIGEST_H
#define ZELTA_CHECK_CHECK_DIGEST_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zelta::check {

class KeyDigest {
 public:
  static constexpr std::size_t kGroups = 4096;
  /// The group of all keys with a hash.
  [[nodiscard]] static std::size_t groupOf(std::uint64_t hash) { return hash >> 52; }

  KeyDigest() : groups_(kGroups) {}

  /// Adds a key that an object has. Its place among the others does not matter, their number does.
  void add(std::uint64_t hash, std::uint64_t objectID) {
    Group& group = groups_[groupOf(hash)];
    ++group.count;
    group.sum += mix(hash + mix(objectID));
  }
  [[nodiscard]] std::uint64_t count(std::size_t group) const { return groups_[group].count; }
  [[nodiscard]] bool agrees(const KeyDigest& other, std::size_t group) const {
    return groups_[group].count == other.groups_[group].count &&
           groups_[group].sum == other.groups_[group].sum;
  }

 private:
  struct Group {
    std::uint64_t count = 0;
    std::uint64_t sum = 0;
  };
  static std::uint64_t mix(std::uint64_t word) {
    word = (word ^ (word >> 31)) * 0x7FB5D329728EA185;
    word = (word ^ (word >> 27)) * 0x81DADEF4BC2DD44D;
    return word ^ (word >> 33);
  }

  std::vector<Group> groups_;
};
static_assert(KeyDigest::kGroups == std::size_t{1} << (64 - 52));

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_DIGEST_H
