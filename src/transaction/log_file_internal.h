// The tree of a log file and the changes of the file, as the sources of the log share them.

#ifndef ZELTA_TRANSACTION_LOG_FILE_INTERNAL_H
#define ZELTA_TRANSACTION_LOG_FILE_INTERNAL_H

#include <vector>

#include "platform/file_io.h"
#include "platform/mutex.h"
#include "storage/free_space.h"
#include "transaction/log_file.h"

namespace zelta::log_file {

inline constexpr std::uint64_t kHeaderSize = sizeof(LogHeader_tag);
/// The bytes of the header that change: all behind magic, version and number.
inline constexpr std::uint64_t kMutableStart = offsetof(LogHeader_tag, rootPosition);
inline constexpr std::uint64_t kIntentStart = offsetof(LogHeader_tag, oldEnd);
/// The part of the intent that its checksum covers.
inline constexpr std::uint64_t kSummedStart = offsetof(LogHeader_tag, newRoot);

inline constexpr std::uint32_t kKeysPerNode = 25;
enum class NodeType : std::uint16_t { leaf = 27753, inner = 28265 };

struct LogNode_tag {
  std::uint64_t blockLength;  ///< 320, or a little more if the block was so long
  NodeType type;
  std::uint16_t keyCount;
  std::uint32_t keys[kKeysPerNode];        ///< transaction numbers, ascending, may repeat
  std::uint64_t values[kKeysPerNode + 1];  ///< positions of entries, or of one more child
};
static_assert(sizeof(LogNode_tag) == 320);
static_assert(std::has_unique_object_representations_v<LogNode_tag>);
static_assert(offsetof(LogNode_tag, keys) == 12);
static_assert(offsetof(LogNode_tag, values) == 112);

inline constexpr std::uint32_t kNodeSize = sizeof(LogNode_tag);
/// Places of the root and the entry in a log that was empty.
inline constexpr std::uint64_t kFirstRoot = kHeaderSize;
inline constexpr std::uint64_t kFirstEntry = kFirstRoot + kNodeSize;
/// The smallest block that the chain gives out: in the single form it must do for a node.
[[nodiscard]] inline std::uint64_t smallestBlock(const LogHeader_tag& header) {
  return header.isSingle() ? kNodeSize : sizeof(LogEntryHead_tag);
}

/// A changed node, as it stands in the copy area.
struct NodeRecord_tag {
  std::uint64_t position;
  LogNode_tag node;
};
static_assert(sizeof(NodeRecord_tag) == 328);
static_assert(std::has_unique_object_representations_v<NodeRecord_tag>);

/// More levels than a tree of 2^32 numbers has, even if its nodes are nearly empty.
inline constexpr std::uint32_t kMaximumDepth = 32;

/// The nodes from the root to a leaf.
struct TreePath {
  struct Level {
    std::uint64_t position;
    std::uint32_t child;  ///< which child was taken
    LogNode_tag node;
  };
  Level levels[kMaximumDepth];
  std::uint32_t depth = 0;
  [[nodiscard]] Level& leaf() { return levels[depth - 1]; }
};

Result reportLogError(MetaData& metaData, SystemCode code);
Result logIsBroken(MetaData& metaData);

/// Walks to the last leaf that may hold `number`.
Result descend(MetaData& metaData, platform::File file, const LogHeader_tag& header,
               std::uint32_t number, TreePath& path);
/// Walks to the leaf before; a path of depth 0: there is none.
Result previousLeaf(MetaData& metaData, platform::File file, const LogHeader_tag& header,
                    TreePath& path);
/// Index of the first key above `number`.
[[nodiscard]] std::uint32_t firstAbove(const LogNode_tag& node, std::uint32_t number);
/// Finds an entry of a number: the one at `position`, or the last one if that is 0. The path leads
/// to its leaf, where `*slot` is its index. Depth 0: there is none.
Result locate(MetaData& metaData, platform::File file, const LogHeader_tag& header,
              std::uint32_t number, std::uint64_t position, TreePath& path, std::uint32_t* slot);

/// A change of tree and chain in the making. It is laid down as an intent with copies of all that
/// changes, and carried out then.
struct Change {
  explicit Change(LogHeader_tag& h) : header(h), root(h.rootPosition), freeHead(h.freeHead) {}
  ~Change() { dropFreeList(freeList); }
  Change(const Change&) = delete;
  Change& operator=(const Change&) = delete;

  void put(std::uint64_t position, const LogNode_tag& node) { nodes.push_back({position, node}); }

  LogHeader_tag& header;
  std::uint64_t root;
  std::uint64_t freeHead;
  std::uint64_t end = 0;  ///< end of the log
  FreeBlock* freeList = nullptr;
  std::vector<NodeRecord_tag> nodes;
};

/// Enters a key in the leaf of a path and splits what is full.
Result insertKey(MetaData& metaData, platform::File file, Change& change, TreePath& path,
                 std::uint32_t number, std::uint64_t position);
/// Takes a slot out of the leaf of a path, and nodes that this leaves useless out of the tree.
/// The blocks of those go to `extents`.
void removeKey(Change& change, TreePath& path, std::uint32_t slot, FreeExtentNode*& extents);

/// Gives a block from the chain or the end of the log.
Result allocateLogBlock(MetaData& metaData, platform::File file, Change& change,
                        std::uint64_t length, std::uint64_t* position, std::uint64_t* blockLength);

/// Lays down the intent with its copy area, carries it out, and clears it. Of `header` the intent's
/// new entry is the caller's; all else is filled in here.
Result carryOut(MetaData& metaData, platform::File file, Change& change);

/// Clears the intent on disk and in the header, with `end` as the end of the log, and cuts the
/// file there.
Result settle(MetaData& metaData, platform::File file, LogHeader_tag& header, std::uint64_t end);
/// Writes the part of the header that changes.
Result writeMutable(MetaData& metaData, platform::File file, const LogHeader_tag& header);

/// Reads the header as it stands. `*blank`: the file was just made and has none yet.
Result readRawHeader(MetaData& metaData, platform::File file, LogHeader_tag& header, bool* blank);

/// Owns logMutex until the end of the scope.
class LogMutexGuard {
 public:
  LogMutexGuard() = default;
  ~LogMutexGuard() { release(); }
  LogMutexGuard(const LogMutexGuard&) = delete;
  LogMutexGuard& operator=(const LogMutexGuard&) = delete;
  Result acquire(MetaData& metaData, std::uint32_t milliseconds);
  void release();

 private:
  MetaData* metaData_ = nullptr;
};
inline constexpr std::uint32_t kLogMutexWait = 600000;

}  // namespace zelta::log_file

#endif  // ZELTA_TRANSACTION_LOG_FILE_INTERNAL_H
