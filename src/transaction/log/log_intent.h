// How a change of a log file becomes atomic: the intent in its header, and the copies behind the
// log's end.
//
//  1. The intent goes into the header, and copies of all nodes and free blocks that change go
//     behind the log's end; flush. Until both are complete, the old end stands: a reader of the
//     header finds the copies cut short or their checksum wrong, and rolls back to it.
//  2. The copies are carried out; flush. Whoever comes later may do so again.
//  3. The header takes the new values and drops the intent; flush. The copies are cut off.
//
// A change that empties the log needs none of this: the header alone says so. Scratch buffer
// `journal`.

#ifndef ZELTA_TRANSACTION_LOG_LOG_INTENT_H
#define ZELTA_TRANSACTION_LOG_LOG_INTENT_H

#include <cstdint>
#include <vector>

#include "storage/free_space/free_chain.h"
#include "transaction/log/log_file.h"

namespace zelta {

/// What a change makes of a log.
struct LogIntentContents {
  /// The log as it stands.
  explicit LogIntentContents(LogFile& log)
      : root(log.header().rootPosition),
        end(log.header().endOfLog),
        freeSpace(log.metaData(), log.handle(), log.header().freeHead,
                  smallestBlock(log.header())) {}

  std::uint64_t root;
  std::uint64_t end;  ///< of the log
  LogFreeChain freeSpace;
  std::vector<LogNodeRecord_tag> nodes;
};

/// Makes a change, steps 1 to 3. `added` (may be null): the head of an entry is written with it.
/// The caller owns logMutex.
Result carryOutLogIntent(LogFile& log, const LogIntentContents& contents, const LogEntry* added);

/// Finishes the change that the header tells of, or rolls it back: steps 2 and 3, or 3 with the old
/// values. `fileSize` is the file's present length. The caller owns logMutex.
Result finishLogIntent(LogFile& log, std::uint64_t fileSize);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_LOG_LOG_INTENT_H
