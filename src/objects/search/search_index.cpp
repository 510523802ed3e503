#include "objects/search/search_index.h"

#include <cassert>
#include <memory>
#include <new>
#include <utility>

#include "index/kinds.h"
#include "objects/search/result_locks.h"
#include "objects/table_access.h"
#include "objects/upcalls.h"
#include "platform/clock.h"
#include "storage/seqlock_reader.h"

namespace zelta {

namespace {

constexpr std::uint32_t kMaximumPasses = 500;
constexpr std::uint32_t kQuickPasses = 250;  ///< before them the processor is only yielded
constexpr std::uint32_t kPause = 10;         // ms

/// A search in passes. A writer makes a pass under the table's mutex, a reader as a section of a
/// seqlock. A pass that fails leaves nothing behind.
class SearchRun {
 public:
  SearchRun(const Session& session, Table& table, const SearchQuery& query, IndexSearch& search)
      : metaData_(session.metaData),
        tables_(session.tables),
        table_(table),
        query_(query),
        search_(search),
        access_(table),
        seqlock_(table),
        writer_(session.metaData.mayWrite()) {}

  Result run(long long* count);

 private:
  [[nodiscard]] bool byExpression() const { return query_.form == SearchQuery::Form::expression; }
  Result pass(long long* count);
  Result openPass();
  Result find(FoundObjects& found);
  Result lock(const FoundObjects& found, ResultLocks& locks);
  [[nodiscard]] long long numberOf(const FoundObjects& found) const;
  [[nodiscard]] SortedIds results(FoundObjects& found, bool locked) const;
  Result outOfMemory();
  bool mayTryAgain(Result result);
  Result waitForOthers();
  Result repairDead();

  MetaData& metaData_;
  UInt32AVLTree*& tables_;
  Table& table_;
  const SearchQuery& query_;
  IndexSearch& search_;
  TableAccess access_;
  SeqlockReader seqlock_;  ///< used by readers alone
  const bool writer_;
  std::uint32_t passes_ = 0;   ///< that others have stopped
  std::uint32_t blocker_ = 0;  ///< that stopped the last one; 0: it is not known
  std::uint32_t ended_ = 0;    ///< a transaction that is known to live no more
};

/// Results that are not kept are gone before anything can fail.
Result SearchRun::run(long long* count) {
  if (!query_.keepsResults()) table_.releaseResults();
  for (;;) {
    blocker_ = 0;
    Result result;
    try {
      result = pass(count);
    } catch (const std::bad_alloc&) {
      result = outOfMemory();
    }
    access_.leave();
    if (result.ok()) return {};
    if (!writer_ && seqlock_.torn() && seqlock_.retry()) {
      clearError(metaData_);
      continue;
    }
    if (!mayTryAgain(result)) return result;
    ZELTA_TRY(waitForOthers());
  }
}

Result SearchRun::outOfMemory() {
  return byExpression() ? reportSystemError(&metaData_, code::kNoMemory)
                        : reportError(&metaData_, Own::context);
}

/// Whether a lock ended the pass. A search by expression takes a table's mutex that it did not get
/// for one.
bool SearchRun::mayTryAgain(Result result) {
  return result.isLocked() || (byExpression() && result.isSystem(code::kTimeout));
}

Result SearchRun::waitForOthers() {
  assert(!access_.owned());
  clearError(metaData_);
  if (++passes_ >= kMaximumPasses) {
    return reportError(&metaData_, Own::objectLocked, table_.cName());
  }
  if (writer_) ZELTA_TRY(repairDead());
  platform::sleepMilliseconds(byExpression() && passes_ >= kQuickPasses ? kPause : 0);
  return {};
}

/// Others may have died without anybody having noticed yet.
Result SearchRun::repairDead() {
  const Session session{metaData_, tables_};
  const Result result =
      blocker_ == 0 ? clearAllDead(session) : clearDeadTransaction(session, blocker_);
  if (result.ok()) ended_ = blocker_;
  return result.isLocked() ? Result{} : result;
}

Result SearchRun::openPass() {
  if (writer_) ZELTA_TRY(access_.acquire(kTableMutexWait));
  if (!writer_ && !seqlock_.begin()) return Result::locked();
  ZELTA_TRY(access_.readHeader());
  if (writer_) ZELTA_TRY(access_.openMemory());
  return access_.openIndex();
}

/// Changes nothing before all has gone well.
Result SearchRun::pass(long long* count) {
  ZELTA_TRY(openPass());
  FoundObjects found;
  ZELTA_TRY(find(found));
  const bool locked = writer_ && query_.locksResults() && !found.ids.empty();
  ResultLocks locks(access_, query_.index - 1);
  if (locked) ZELTA_TRY(lock(found, locks));
  long long told = numberOf(found);
  SortedIds all = results(found, locked);
  if (query_.keepsResults() && byExpression()) told = static_cast<long long>(all.size());
  ZELTA_TRY(access_.release());
  table_.searchResults = std::move(all);
  if (found.inverted) table_.searchInverted = *found.inverted;
  if (!searchForms(table_, query_.index - 1)->narrows) table_.searchIndex = query_.index;
  if (locked) locks.keep();
  if (count != nullptr) *count = told;
  return {};
}

Result SearchRun::find(FoundObjects& found) {
  ZELTA_TRY(search_.run(access_.manager(), found));
  if (!writer_ && seqlock_.torn()) return Result::locked();
  found.ids.settle();
  found.besides.settle();
  return {};
}

Result SearchRun::lock(const FoundObjects& found, ResultLocks& locks) {
  const bool inverted = found.inverted.value_or(table_.searchInverted);
  const Result taken = locks.take(found.ids, inverted, ended_);
  blocker_ = locks.blocker();
  return taken;
}

/// How many objects a search has found. Of those that do not match, deleted ones count as well.
long long SearchRun::numberOf(const FoundObjects& found) const {
  const long long number = found.count.value_or(static_cast<long long>(found.ids.size()));
  if (!found.inverted.value_or(false)) return number;
  return static_cast<long long>(access_.header.highestID) - number;
}

/// The results of the table as they are with what was found. Of objects that a search by expression
/// has locked, those that were among the results leave them.
SortedIds SearchRun::results(FoundObjects& found, bool locked) const {
  if (!query_.keepsResults()) return std::move(found.ids);
  const SortedIds& before = table_.searchResults;
  if (byExpression()) {
    return locked ? symmetricDifferenceOf(before, found.ids) : unionOf(before, found.ids);
  }
  return unionOf(unionOf(before, found.ids), found.besides);
}

}  // namespace

Result runSearch(const Session& session, Table& table, const SearchQuery& query,
                 IndexSearch& search, long long* count) {
  return SearchRun(session, table, query, search).run(count);
}

Result searchIndex(const Session& session, Table& table, const SearchQuery& query,
                   long long* count) {
  ZELTA_TRY(checkQuery(table, query));
  std::unique_ptr<IndexSearch> search;
  ZELTA_TRY(prepareSearch(table, query, &search));
  return runSearch(session, table, query, *search, count);
}

}  // namespace zelta
