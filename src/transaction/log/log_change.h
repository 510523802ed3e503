// A change of a log file's tree and chain in the making: worked out in memory, then laid down as an
// intent with copies of all that changes, and carried out (log_intent.h). What is allocated,
// entered and released here is nowhere but in memory until carryOut(); dropping the object drops
// the change.

#ifndef ZELTA_TRANSACTION_LOG_LOG_CHANGE_H
#define ZELTA_TRANSACTION_LOG_LOG_CHANGE_H

#include <cstdint>

#include "transaction/log/log_file.h"
#include "transaction/log/log_intent.h"
#include "transaction/log/log_tree.h"

namespace zelta {

/// One change: an entry more, or one less.
class LogChange {
 public:
  /// The header of `log` has been read, under the mutex, which is held until the change is carried
  /// out or given up.
  explicit LogChange(LogFile& log);

  /// Gives a block from the chain or the end of the log, which may be longer than asked for.
  Result allocate(std::uint64_t length, std::uint64_t* position, std::uint64_t* blockLength);
  /// Notes a block that becomes free.
  void release(std::uint64_t position, std::uint64_t size) {
    contents_.freeSpace.deferred().add({position, size});
  }
  /// Brings what was released into the chain. Free space at the end of the log leaves it.
  Result mergeReleased() {
    return contents_.freeSpace.merge(log_.header().endOfLog, &contents_.end);
  }

  /// Enters a key in the leaf of a path and splits what is full.
  Result insertKey(LogPath& path, std::uint32_t number, std::uint64_t position);
  /// Takes a slot out of the leaf of a path, and nodes that this leaves useless out of the tree;
  /// these are released.
  void removeKey(LogPath& path, std::uint32_t slot);
  /// Whether the last entry goes: such a change needs no intent, since the header alone tells it.
  [[nodiscard]] bool leavesNothing() const { return contents_.root == 0; }

  /// Brings the change into the file. `added` (may be null): the head of an entry is written, too.
  Result carryOut(const LogEntry* added);

 private:
  void put(std::uint64_t position, const LogNode_tag& node) {
    contents_.nodes.push_back({position, node});
  }
  /// A block for a node, and a node that is empty but for its length.
  Result allocateNode(LogNode_tag& node, std::uint64_t* position);
  /// A new root over the old one and the node that was split off it.
  Result growRoot(std::uint32_t separator, std::uint64_t right);

  LogFile& log_;
  LogIntentContents contents_;
};

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_LOG_LOG_CHANGE_H
