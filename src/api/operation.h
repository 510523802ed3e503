// What all exported operations have in common: the checks of the handle's state in front, the end
// of std::bad_alloc, the trimming of buffers behind. An operation is a StateCheck and one call of a
// worker in a lower layer.

#ifndef ZELTA_API_OPERATION_H
#define ZELTA_API_OPERATION_H

#include "czelta.h"
#include "frame/out_of_memory.h"
#include "platform/clock.h"
#include "storage/table.h"

namespace zelta {

/// Runs the work of an operation. std::bad_alloc ends here, and the scratch buffers are trimmed.
template <typename Work>
unsigned long long performKeepingText(MetaData& metaData, bool trimAll, Work work) {
  const Result result = catchBadAlloc(metaData, work);
  trimScratch(metaData, trimAll);
  return result.word();
}

/// The same for an operation whose success has nothing to tell: what failed on the way and was got
/// over leaves no text.
template <typename Work>
unsigned long long perform(MetaData& metaData, bool trimAll, Work work) {
  const unsigned long long word = performKeepingText(metaData, trimAll, work);
  if (word == 0) clearError(metaData);
  return word;
}

/// The state checks that stand in front of the work, in the order in which they are asked. The
/// first that fails decides.
class StateCheck {
 public:
  explicit StateCheck(MetaData& metaData) : metaData_(metaData) {}

  StateCheck& open() { return require(metaData_.isOpen(), Own::noTransaction); }
  StateCheck& closed() { return require(!metaData_.isOpen(), Own::inUse); }
  StateCheck& transaction() { return require(metaData_.transactionWord != 0, Own::noTransaction); }
  StateCheck& noTransaction() { return require(metaData_.transactionWord == 0, Own::inUse); }
  StateCheck& exclusive() { return require(metaData_.transactionWord == 1, Own::notExclusive); }
  StateCheck& mayWrite() { return require(metaData_.mayWrite(), Own::notWritable); }
  StateCheck& ownThread() {
    return require(failed() || metaData_.ownerThread == platform::currentThread(),
                   Own::wrongThread);
  }
  StateCheck& parameter(bool good) { return require(good, Own::parameter); }
  StateCheck& require(bool good, Own code) {
    if (result_.ok() && !good) result_ = reportError(&metaData_, code);
    return *this;
  }
  /// Finds the open table.
  StateCheck& table(UInt32AVLTree* tables, unsigned int id, Table*& out) {
    if (failed()) return *this;
    out = findTable(tables, id);
    if (out == nullptr) result_ = reportError(&metaData_, Own::tableNotOpen, nullptr, nullptr, id);
    return *this;
  }
  [[nodiscard]] bool failed() const { return result_.failed(); }
  [[nodiscard]] unsigned long long word() const { return result_.word(); }

 private:
  MetaData& metaData_;
  Result result_;
};

/// The word of an operation on a handle whose construction failed.
inline constexpr unsigned long long kNullHandle = Result::own(Own::unclassified).word();

}  // namespace zelta

#endif  // ZELTA_API_OPERATION_H
