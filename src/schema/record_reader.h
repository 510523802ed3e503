// Bringing an object's bytes from a table file or a memory file into memory. No length that stands
// in a file becomes memory before the file is known to have as many bytes. It is the one place
// where a record's framing is read for its object; who reads (a transaction, a commit, the building
// of an index) differs in the rules that the record is measured by and in what it makes of a fault.

#ifndef ZELTA_SCHEMA_RECORD_READER_H
#define ZELTA_SCHEMA_RECORD_READER_H

#include <cstdint>

#include "schema/object_view.h"
#include "storage/memory_file/memory_file_map.h"
#include "storage/table.h"

namespace zelta {

/// The memory that objects are read into, one after the other.
struct RecordBuffer {
  ScratchBuffer& bytes;
  std::uint32_t lead;  ///< bytes ahead of the object; in a variable table at least kRecordHead
  bool tight;          ///< gives memory back when it is much larger than an object needs

  [[nodiscard]] char* object() const { return bytes.data() + lead; }
  [[nodiscard]] bool holds(std::uint64_t length) const {
    return bytes.data() != nullptr && bytes.size() >= length + lead;
  }
  /// Whether the buffer has room for an object, and no memory to give back.
  [[nodiscard]] bool suits(std::uint64_t length) const;
  /// Sees to it. False: what the buffer held is lost. Throws std::bad_alloc.
  bool makeRoom(std::uint64_t length);
};

/// What a committed record is measured by.
struct RecordRules {
  static constexpr std::uint64_t kUnknown = ~std::uint64_t{0};

  /// Of the object area. Unknown: nobody vouches for the record. The file's end alone counts, and
  /// the version word tells a placeholder, whatever length goes with it.
  std::uint64_t end = kUnknown;
  std::uint32_t shortest;   ///< bytes that an object has at least
  bool wholeBlock = false;  ///< the size of the record's block must fit as well
};

/// Why a record's object is not at hand.
struct RecordFault {
  enum class Kind {
    none,
    placeholder,  ///< the content is still to come from the log
    malformed,    ///< what the record says cannot be: `value`
    cutShort,     ///< the file ends before the record does, whose object has `value` bytes
    otherObject,  ///< the object has another ID than the one that is wanted: `value`
    system        ///< a call failed: `code`
  };

  Kind kind = Kind::none;
  std::uint64_t position = 0;  ///< of the word in question
  std::uint64_t value = 0;
  SystemCode code = 0;

  [[nodiscard]] bool is(Kind other) const { return kind == other; }
};

/// Reads one object after the other. The bytes of one are good until the next one is read, by any
/// reader with this buffer.
class RecordReader {
 public:
  RecordReader(const Table& table, RecordBuffer buffer) : table_(table), buffer_(buffer) {}
  /// A reader into the handle's buffer for second versions of objects (Scratch::object).
  static RecordReader aside(const Table& table);

  /// Reads a committed object, as a rule in one piece, and reports nothing. `expected`: how many
  /// bytes it may have.
  RecordFault fetch(std::uint64_t objectID, std::uint64_t position, const RecordRules& rules,
                    std::uint64_t expected, ObjectBytes* object);
  /// The failure that a fault is to a reader: own code 55, also of a placeholder, or the system's.
  Result report(const RecordFault& fault) const {
    return fault.is(RecordFault::Kind::none) ? Result() : reportFault(fault);
  }

  /// Whether an entry of the object map can be one: else own code 58, and the buffer holds what it
  /// held. `end`: of the memory file, as its header states it.
  Result checkPending(const PendingObject& pending, std::uint64_t end) const;
  /// Reads a pending object, after the same check. Own code 58 also if it is another one.
  Result readPending(const PendingObject& pending, std::uint64_t end, ObjectBytes* object);

 private:
  Result reportFault(const RecordFault& fault) const;
  RecordFault fetchFixed(std::uint64_t position, const RecordRules& rules, ObjectBytes* object);
  RecordFault fetchVariable(std::uint64_t position, const RecordRules& rules,
                            std::uint64_t expected, ObjectBytes* object);
  [[nodiscard]] std::uint32_t pendingLength(const PendingObject& pending) const {
    return table_.isFixed() ? table_.fixedAreaSize : pending.length;
  }
  Result badMemory() const;
  SystemCode fetchRest(platform::File file, std::uint64_t position, std::uint32_t have,
                       std::uint32_t length);

  const Table& table_;
  RecordBuffer buffer_;
};

}  // namespace zelta

#endif  // ZELTA_SCHEMA_RECORD_READER_H
