// Finding an object and doing something with it, in passes. A writer makes a pass under the table's
// mutex and may lock the object; a reader takes neither, its pass is a section of a seqlock.
//
//   pass -- done ----> the object is the table's current one
//   pass -- failed --> the result goes to the caller
//   pass -- torn ----> pause, pass: a commit went on beside a reader
//   pass -- again ---> pass: what a dead transaction has left is out of the way, or was looked for
//   pass -- blocked -> wait without the mutex, pass; at the end of the wait own code 27 or 67
//
// Locks: a writer holds the table's mutex during a pass and none between passes; whoever blocks it
// is looked for and repaired when the mutex has been released, since the database's mutex is never
// waited for with a table's at hand. A lock on an object that a pass has taken is released with the
// pass unless the work keeps it.

#ifndef ZELTA_OBJECTS_READ_OBJECT_ACCESS_H
#define ZELTA_OBJECTS_READ_OBJECT_ACCESS_H

#include <cstdint>

#include "czelta.h"
#include "objects/current_keys.h"
#include "objects/read/locate.h"
#include "objects/read/lock_wait.h"
#include "objects/read/read_request.h"
#include "objects/table_access.h"
#include "storage/seqlock_reader.h"

namespace zelta {

/// How a pass ended. Each end but `failed` leaves no text.
class PassEnd {
 public:
  enum class Kind { done, failed, again, blockedByLock, blockedByTransaction };

  /// Of a step that may fail. Code 33: blocked by a transaction whose number nobody knows.
  PassEnd(Result result)
      : kind_(result.ok()         ? Kind::done
              : result.isLocked() ? Kind::blockedByTransaction
                                  : Kind::failed),
        result_(result) {}
  static PassEnd again() { return {Kind::again, 0}; }
  /// By the lock of an object.
  static PassEnd blockedByLock() { return {Kind::blockedByLock, 0}; }
  /// By a transaction; 0: which one is not known.
  static PassEnd blockedBy(std::uint32_t transaction) {
    return {Kind::blockedByTransaction, transaction};
  }

  [[nodiscard]] Kind kind() const { return kind_; }
  [[nodiscard]] bool is(Kind kind) const { return kind_ == kind; }
  [[nodiscard]] Result result() const { return result_; }
  [[nodiscard]] std::uint32_t transaction() const { return transaction_; }

 private:
  PassEnd(Kind kind, std::uint32_t transaction) : kind_(kind), transaction_(transaction) {}

  Kind kind_;
  std::uint32_t transaction_ = 0;
  Result result_;
};

/// One access to one object. A derived class says what is done with it (work()); run() does the
/// rest, in as many passes as it takes. What a pass has found out about others is kept for the next
/// ones: who was repaired, who is known to have ended, how often was asked.
class ObjectAccess {
 public:
  /// The request outlives the access.
  ObjectAccess(UInt32AVLTree*& tables, const ReadRequest& request)
      : metaData_(request.metaData),
        tables_(tables),
        table_(request.table),
        request_(request),
        access_(request.table),
        startID_(request.table.currentObjectID),
        wait_(request.flags),
        seqlock_(request.table) {}
  virtual ~ObjectAccess() = default;
  ObjectAccess(const ObjectAccess&) = delete;
  ObjectAccess& operator=(const ObjectAccess&) = delete;

  /// Finds and locks the object that is asked for, and does the work with it. Afterwards it is the
  /// table's current one.
  Result run();
  /// Number of the entry whose key matched.
  [[nodiscard]] std::uint32_t entry() const { return entry_; }

 protected:
  /// What is done with the object, under the mutex if the transaction may write. It is locked then;
  /// `found.newLock` keeps the lock if it is told so.
  virtual Result work(Located& found) = 0;

  /// The end of what a pass reads, to be called by work() once, before it changes what walks go on
  /// from: no other pass follows. Code 33, for a reader: what it has read is torn.
  Result releaseMutex();
  /// Makes a version of the object the one that walks go on from. No other pass follows.
  Result moveCursors(Located& found, ObjectBytes object);

  MetaData& metaData_;
  UInt32AVLTree*& tables_;
  Table& table_;
  const ReadRequest& request_;
  TableAccess access_;
  const std::uint64_t startID_;  ///< object that every pass sets out from

 private:
  // A pass, and its steps
  PassEnd pass();
  Result openPass();
  PassEnd locate(Located& found);
  Result finishPass(Located& found);
  // What its end means
  [[nodiscard]] bool looksTorn(Result result) const;
  [[nodiscard]] bool mayBeStale(Result result, const Located& found) const;
  // Others in the way
  PassEnd meetBlocker(Located& found);
  PassEnd dropStaleEntries(const Located& found);
  PassEnd repairDead(PassEnd blocked, Located& found);
  bool waitsForDecided(Result result);
  Result waitOrFail(const PassEnd& blocked);
  Result isAhead(bool* ahead);

  LockWait wait_;
  SeqlockReader seqlock_;  ///< used by readers alone
  std::uint32_t entry_ = 0;
  bool headerRead_ = false;             ///< the pass got past the table's header
  bool final_ = false;                  ///< the cursors may have moved: no other pass can follow
  std::uint32_t repairs_ = 0;           ///< passes that ended with `again`
  std::uint32_t staleAsks_ = 0;         ///< times that something stale was met, and nobody was dead
  std::uint32_t endedTransaction_ = 0;  ///< known to live no more
  std::uint32_t decidedBy_ = 0;         ///< whose decided commit this access waits for
  // The object that the last pass met, as far as it got
  std::uint64_t metID_ = 0;
  std::uint64_t metPosition_ = 0;
};

}  // namespace zelta

#endif  // ZELTA_OBJECTS_READ_OBJECT_ACCESS_H
