// A reader of table files that knows their bytes and shares nothing with the engine.

#ifndef ZELTA_TESTS_SUPPORT_RAW_TABLE_H
#define ZELTA_TESTS_SUPPORT_RAW_TABLE_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace zelta::testing {

/// Numbers out of bytes; what lies outside of them is noted and read as 0.
class RawBytes {
 public:
  explicit RawBytes(std::string bytes) : bytes_(std::move(bytes)) {}
  [[nodiscard]] std::uint64_t size() const { return bytes_.size(); }
  [[nodiscard]] const std::string& all() const { return bytes_; }
  [[nodiscard]] std::uint8_t u8(std::uint64_t at) { return number<std::uint8_t>(at); }
  [[nodiscard]] std::uint16_t u16(std::uint64_t at) { return number<std::uint16_t>(at); }
  [[nodiscard]] std::uint32_t u32(std::uint64_t at) { return number<std::uint32_t>(at); }
  [[nodiscard]] std::uint64_t u64(std::uint64_t at) { return number<std::uint64_t>(at); }
  [[nodiscard]] std::string part(std::uint64_t at, std::uint64_t length) {
    if (at > bytes_.size() || length > bytes_.size() - at) {
      damaged("no bytes at " + std::to_string(at));
      return {};
    }
    return bytes_.substr(at, length);
  }
  void damaged(const std::string& what) {
    if (damage.empty()) damage = what;
  }
  void expect(bool good, const std::string& what) {
    if (!good) damaged(what);
  }
  /// The first thing that is wrong; empty if all is well.
  std::string damage;

 private:
  template <class Number>
  Number number(std::uint64_t at) {
    Number value{};
    if (at > bytes_.size() || bytes_.size() - at < sizeof value) {
      damaged("no bytes at " + std::to_string(at));
      return value;
    }
    std::memcpy(&value, bytes_.data() + at, sizeof value);
    return value;
  }

  std::string bytes_;
};

/// The numbers at the head of a table file.
struct RawTableHeader {
  std::uint32_t slotBase, schemaSize, headerSize, fixedArea, minimumSize, defaultSize;
  std::uint64_t highestID, firstDeletedID, areaStart, freeHead, end;
  std::string rest;  ///< the 96 bytes of a commit under way
};

inline RawTableHeader readRawTableHeader(RawBytes& in) {
  in.expect(in.part(0, 8) == std::string("ZELT\1\0\4\0", 8), "magic and version");
  return {in.u32(8),  in.u32(12), in.u32(16), in.u32(20), in.u32(24), in.u32(28),
          in.u64(32), in.u64(40), in.u64(48), in.u64(56), in.u64(64), in.part(72, 96)};
}

/// All that a table file at rest holds. Reading it checks that the slots and the list of free IDs
/// are whole, and that each byte of the object area belongs to one record or one free block.
class RawTable {
 public:
  explicit RawTable(const std::string& bytes) : in_(bytes), header(readRawTableHeader(in_)) {
    readHeader();
    if (in_.damage.empty()) readSlots();
    if (in_.damage.empty()) readFreeIDs();
    if (in_.damage.empty()) isFixed() ? readFixedArea() : readVariableArea();
    if (in_.damage.empty()) {
      in_.expect(objects.size() == positions_.size(), "a slot leads to no record");
    }
  }
  [[nodiscard]] bool isFixed() const { return header.fixedArea == header.minimumSize; }
  [[nodiscard]] const std::string& damage() const { return in_.damage; }

 private:
  RawBytes in_;

 public:
  RawTableHeader header;
  std::map<std::uint64_t, std::string> objects;       ///< ID to bytes, version word included
  std::map<std::uint64_t, std::uint32_t> records;     ///< position to size
  std::map<std::uint64_t, std::uint32_t> freeBlocks;  ///< position to size
  std::vector<std::uint64_t> freeIDs;

 private:
  void readHeader() {
    const std::uint64_t behind = (std::uint64_t{header.schemaSize} + 171) & ~std::uint64_t{3};
    in_.expect(header.slotBase == behind - 12, "slot base");
    in_.expect(header.rest == std::string(96, '\0'), "a commit stands");
    in_.expect(header.areaStart >= header.slotBase + 12 * (header.highestID + 1),
               "slots reach into the objects");
    in_.expect(header.end >= header.areaStart, "end before the objects");
    in_.expect(header.end == in_.size(), "end of file");
    for (std::uint64_t at = std::uint64_t{168} + header.schemaSize; at < behind; ++at) {
      in_.expect(in_.u8(at) == 0, "padding behind the schema");
    }
  }
  void readSlots() {
    for (std::uint64_t id = 1; slot(id) + 12 <= header.areaStart; ++id) {
      const std::uint64_t position = in_.u64(slot(id));
      const std::string name = "slot " + std::to_string(id);
      in_.expect(in_.u32(slot(id) + 8) == 0, name + " is stamped");
      if (id > header.highestID) {
        in_.expect(position == 0, name + " above the highest ID is not clear");
      } else if (position >> 63 != 0) {
        free_.emplace(id, position & ~(std::uint64_t{1} << 63));
      } else {
        in_.expect(position >= header.areaStart && position < header.end, name + " leads astray");
        in_.expect(positions_.emplace(position, id).second, name + " shares a record");
      }
    }
    in_.expect(header.highestID == 0 || free_.count(header.highestID) == 0,
               "the highest ID is free");
  }
  void readFreeIDs() {
    std::uint64_t id = header.firstDeletedID;
    // A link that is not below the highest ID ends the list.
    while (id != 0 && id < header.highestID && in_.damage.empty()) {
      in_.expect(freeIDs.empty() || freeIDs.back() < id, "free IDs do not ascend");
      in_.expect(free_.count(id) == 1, "the list of free IDs leads to one in use");
      freeIDs.push_back(id);
      id = free_[id];
    }
    in_.expect(freeIDs.size() == free_.size(), "a free ID is not on the list");
  }
  void take(std::uint64_t at, const std::string& object) {
    const std::string name = "record at " + std::to_string(at);
    const auto found = positions_.find(at);
    in_.expect(found != positions_.end(), name + " belongs to no slot");
    in_.expect(object.size() >= header.minimumSize, name + " is too short");
    if (!in_.damage.empty()) return;
    std::uint64_t id = 0;
    std::memcpy(&id, object.data() + 2, header.headerSize - 2);
    in_.expect(id == found->second, name + " has the ID of another");
    objects.emplace(id, object);
  }
  void readFixedArea() {
    in_.expect(header.freeHead == 0, "a chain of free space in a fixed table");
    std::uint64_t at = header.areaStart;
    for (; at + header.fixedArea <= header.end && in_.damage.empty(); at += header.fixedArea) {
      records.emplace(at, header.fixedArea);
      take(at, in_.part(at, header.fixedArea));
    }
    in_.expect(at == header.end, "bytes behind the last record");
  }
  void readVariableArea() {
    std::uint64_t at = header.areaStart;
    while (at < header.end && in_.damage.empty()) {
      const std::uint32_t size = in_.u32(at);
      const std::uint32_t length = in_.u32(at + 4);
      const std::string name = "block at " + std::to_string(at);
      in_.expect(size >= 20 && size <= header.end - at, name + " has a wild size");
      if (!in_.damage.empty()) return;
      in_.expect(in_.u32(at + size - 4) == size, name + " has another size at its end");
      if (length == 0xFFFFFFFF) {
        freeBlocks.emplace(at, size);
      } else {
        in_.expect(length <= size - 12, name + " is shorter than its object");
        records.emplace(at, size);
        take(at, in_.part(at + 8, length));
      }
      at += size;
    }
    readChain();
  }
  void readChain() {
    std::vector<std::uint64_t> chain;
    for (std::uint64_t at = header.freeHead; at != 0 && in_.damage.empty(); at = in_.u64(at + 8)) {
      in_.expect(chain.empty() || chain.back() < at, "free blocks do not ascend");
      chain.push_back(at);
    }
    in_.expect(chain.size() == freeBlocks.size(), "chain and free blocks differ");
    std::uint64_t lastEnd = 0;
    for (const auto& [at, size] : freeBlocks) {
      in_.expect(std::binary_search(chain.begin(), chain.end(), at), "a free block is off chain");
      in_.expect(at != lastEnd, "free blocks side by side");
      lastEnd = at + size;
    }
    in_.expect(lastEnd != header.end || freeBlocks.empty(), "free space at the end of the file");
  }
  [[nodiscard]] std::uint64_t slot(std::uint64_t id) const { return header.slotBase + 12 * id; }

  std::map<std::uint64_t, std::uint64_t> positions_;  ///< of the slots, to their IDs
  std::map<std::uint64_t, std::uint64_t> free_;       ///< free IDs to their links
};

}  // namespace zelta::testing

#endif  // ZELTA_TESTS_SUPPORT_RAW_TABLE_H
