// Finding an object and making it this transaction's own: passes under the table's mutex, and waits
// for others between them.

#ifndef ZELTA_OBJECTS_OBJECT_ACCESS_H
#define ZELTA_OBJECTS_OBJECT_ACCESS_H

#include <cstdint>
#include <optional>

#include "czelta.h"
#include "objects/current_keys.h"
#include "objects/locate.h"
#include "objects/lock_wait.h"

namespace zelta {

class ObjectAccess {
 public:
  ObjectAccess(UInt32AVLTree*& tables, ReadRequest request, CZELTA::Mode flags)
      : metaData_(request.metaData),
        tables_(tables),
        table_(request.table),
        request_(request),
        wait_(flags),
        startID_(request.table.currentObjectID) {}
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
  virtual Result work(const TableHeader_tag& header, Located& found) = 0;

  Result releaseMutex();
  /// Makes a version of the object the one that walks go on from.
  Result moveCursors(Located& found, ObjectBytes object);
  /// Takes note of the object's lock, once the cursors stand on this version of it.
  Result advance(const Located& found, ObjectBytes object);

  MetaData& metaData_;
  UInt32AVLTree*& tables_;
  Table& table_;
  ReadRequest request_;
  std::optional<ReadFiles> files_;
  LockWait wait_;
  const std::uint64_t startID_;  ///< object that every pass sets out from

 private:
  enum class Outcome { done, again, blockedByTransaction, objectLocked };

  Result pass(Outcome* outcome);
  Result openPass(TableHeader_tag& header);
  [[nodiscard]] bool mayBeTrace(Result result, const Located& found) const;
  Result meetBlocker(const TableHeader_tag& header, Located& found, Outcome* outcome);
  Result dropTraces(const TableHeader_tag& header, const Located& found, Outcome* outcome);
  Result askForDead(std::uint32_t number, Outcome blocked, Located& found, Outcome* outcome);
  Result finishPass(const TableHeader_tag& header, Located& found);
  Result waitOrFail(Outcome outcome);
  Result isAhead(bool* ahead);
  [[nodiscard]] bool watch();
  [[nodiscard]] bool disturbed() const;
  [[nodiscard]] bool mayBeTorn(Result result) const;
  bool readAgain(Result result);
  bool waitsForDecided(Result result);

  TableMutexGuard mutex_;
  std::uint32_t entry_ = 0;
  std::uint32_t endedTransaction_ = 0;  ///< known to live no more
  std::uint32_t idleAsks_ = 0;          ///< times that a trace was met, and nobody was dead
  bool headerRead_ = false;             ///< the pass got past the table's header
  bool settled_ = false;                ///< the cursors may have moved: there is no way back
  // A reader without the mutex
  bool watching_ = true;       ///< it makes sure that nobody changes what it reads
  std::uint32_t changes_ = 0;  ///< count of changes at the beginning of the pass
  std::uint32_t tornRounds_ = 0;
  std::uint32_t decidedBy_ = 0;  ///< whose decided commit this access waits for
  std::uint32_t repairs_ = 0;
  // Who keeps the object from this access
  std::uint64_t blockedID_ = 0;
  std::uint64_t blockedPosition_ = 0;
  std::uint32_t blockedBy_ = 0;
};

[[nodiscard]] CZELTA::Mode withoutFlags(CZELTA::Mode mode);
/// Copies the ID that a request begins at into `id`, `width` being that of the ID at `key`, and has
/// the request begin there, at 64 bits. Where the caller has it may be the table's buffer: a pass
/// fills that, and may give its memory back, before another one begins.
void holdKey(ReadRequest& request, IdWidth width, std::uint64_t& id);
/// What can be refused of a request before any file is looked at.
Result checkRequest(const ReadRequest& request);
/// Makes the key to look for if the request goes through a B+Tree and has one. `searchKey` owns it.
Result makeSearchKey(ReadRequest& request, PooledKey& searchKey);

}  // namespace zelta

#endif  // ZELTA_OBJECTS_OBJECT_ACCESS_H
