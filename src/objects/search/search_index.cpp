#include "objects/search/search_index.h"

#include <cassert>
#include <memory>

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
/// seqlock. A pass that meets a lock leaves nothing behind but, of a search that does not keep
/// them, the loss of the results before it.
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
  void dropResults();
  long long install(FoundObjects& found, bool locked);
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

Result SearchRun::run(long long* count) {
  for (;;) {
    blocker_ = 0;
    const Result result = pass(count);
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

void SearchRun::dropResults() {
  destroyAll(table_.searchResults);
  table_.searchInverted = false;
  table_.searchIndex = 0;
}

Result SearchRun::pass(long long* count) {
  ZELTA_TRY(openPass());
  if (!query_.keepsResults()) dropResults();
  FoundObjects found;
  ZELTA_TRY(search_.run(access_.manager(), found));
  if (!writer_ && seqlock_.torn()) return Result::locked();
  if (found.inverted) table_.searchInverted = *found.inverted;
  if (found.inverted.value_or(false)) {
    // Deleted objects count as well.
    found.count = static_cast<long long>(access_.header.highestID) - found.count;
  }
  ResultLocks locks(access_, query_.index - 1);
  const bool locked = writer_ && query_.locksResults() && found.ids != nullptr;
  if (locked) {
    const Result taken = locks.take(found.ids, table_.searchInverted, ended_);
    blocker_ = locks.blocker();
    ZELTA_TRY(taken);
  }
  const long long told = install(found, locked);
  if (locked) locks.keep();
  if (count != nullptr) *count = told;
  return access_.release();
}

/// Makes what was found the results of the table, or a part of them. Returns how many the caller is
/// told of.
long long SearchRun::install(FoundObjects& found, bool locked) {
  long long told = found.count;
  if (!query_.keepsResults()) {
    destroyAll(table_.searchResults);
    std::swap(table_.searchResults, found.ids);
  } else if (byExpression()) {
    // Of objects that were locked those that were among the results leave them.
    locked ? toggleAll(table_.searchResults, found.ids) : addAll(table_.searchResults, found.ids);
    told = zelta::count(table_.searchResults);
  } else {
    for (const std::uint64_t id : found.besides) found.addUncounted(id);
    addAll(table_.searchResults, found.ids);
  }
  if (!searchForms(table_, query_.index - 1)->narrows) table_.searchIndex = query_.index;
  return told;
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
