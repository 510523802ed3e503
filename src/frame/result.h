// The result word of every operation, and the recorder of failure texts. Functions that can fail
// return a Result; ZELTA_TRY passes a failure on. The text is recorded where the failure is found,
// and belongs to the handle.

#ifndef ZELTA_FRAME_RESULT_H
#define ZELTA_FRAME_RESULT_H

#include <cstdint>

#include "platform/codes.h"

namespace zelta {

struct MetaData;

/// The library's own failure codes.
enum class Own : std::uint32_t {
  notLocal = 2,
  noTransaction = 3,
  notExclusive = 4,
  notWritable = 5,
  tableNotOpen = 6,
  parameter = 7,
  context = 8,
  tableName = 9,
  tableId = 10,
  lockOrder = 11,
  fieldType = 12,
  fieldOrder = 13,
  segmentField = 14,
  segmentType = 15,
  segmentMode = 16,
  segmentCount = 17,
  readMode = 18,
  indexKind = 19,
  objectPower = 20,
  controlVersion = 21,
  tableVersion = 22,
  indexVersion = 23,
  logVersion = 24,
  databaseLocked = 25,
  lockIndex = 26,
  objectLocked = 27,
  wrongThread = 28,
  tableNotFound = 30,
  objectNotFound = 31,
  keyNotFound = 32,
  logEntryNotFound = 33,
  inUse = 34,
  tableUsed = 35,
  idExists = 36,
  keyExists = 37,
  logEntryExists = 38,
  noObject = 39,
  noSearch = 40,
  pendingEdits = 41,
  fieldName = 42,
  cast = 43,
  indexInconsistent = 44,
  objectTooLong = 45,
  variableField = 46,
  deleteList = 47,
  freeList = 48,
  variableLeaf = 50,
  bPlusTree = 51,
  spatialTree = 52,
  wordTree = 53,  ///< has the general text, like `postings`
  controlFile = 54,
  tableFile = 55,
  logFile = 56,
  indexFile = 57,
  memoryFile = 58,
  unclassified = 59,
  multiEntry = 61,
  postings = 62,
  search = 63,
  temporalTree = 64,
  spatialPattern = 65,
  fieldOffset = 66,
  transactionLocked = 67,
  logPosition = 68,
  logEntry = 69
};

/// A result word: 0, or a code in the low half with its class in the high half.
class [[nodiscard]] Result {
 public:
  constexpr Result() = default;
  constexpr explicit Result(std::uint64_t word) : word_(word) {}
  static constexpr Result own(Own code) {
    return Result{(std::uint64_t{1} << 32) | static_cast<std::uint32_t>(code)};
  }
  static constexpr Result system(SystemCode code) {
    return code == 0 ? Result{} : Result{(std::uint64_t{2} << 32) | code};
  }
  /// Something is locked: the internal signal of the retry loops, which carries no text.
  static constexpr Result locked() { return system(code::kLockViolation); }

  [[nodiscard]] constexpr bool ok() const { return word_ == 0; }
  [[nodiscard]] constexpr bool failed() const { return word_ != 0; }
  [[nodiscard]] constexpr std::uint64_t word() const { return word_; }
  /// The code without its class.
  [[nodiscard]] constexpr std::uint32_t code() const { return static_cast<std::uint32_t>(word_); }
  [[nodiscard]] constexpr bool is(Own code) const { return word_ == own(code).word_; }
  [[nodiscard]] constexpr bool isSystem(SystemCode code) const {
    return word_ == system(code).word_;
  }
  /// Code 33 of either class.
  [[nodiscard]] constexpr bool isLocked() const { return code() == code::kLockViolation; }

  /// Drops a result on purpose.
  constexpr void ignore() const {}

  /// Keeps the first failure of a clean-up.
  constexpr void keepFirst(Result later) {
    if (ok()) word_ = later.word_;
  }

  friend constexpr bool operator==(Result, Result) = default;

 private:
  std::uint64_t word_ = 0;
};

/// Returns from the calling function when `expression` failed.
#define ZELTA_TRY(expression)                                                     \
  do {                                                                            \
    if (const ::zelta::Result zeltaResult_ = (expression); zeltaResult_.failed()) \
      return zeltaResult_;                                                        \
  } while (false)

/// Records an own failure with its text in `metaData` (which may be null: no text) and returns its
/// word. `s1` and `s2` may be null.
Result reportError(MetaData* metaData, Own code, const char16_t* s1 = nullptr,
                   const char16_t* s2 = nullptr, std::int64_t i1 = 0, std::int64_t i2 = 0);

/// The same for a failure of the system, whose code is not 0.
Result reportSystemFailure(MetaData* metaData, SystemCode code, const char16_t* s1,
                           const char16_t* s2, std::int64_t i1, std::int64_t i2);

/// The same for what a call of the system returned. Code 0 is no failure and records nothing.
inline Result reportSystemError(MetaData* metaData, SystemCode code, const char16_t* s1 = nullptr,
                                const char16_t* s2 = nullptr, std::int64_t i1 = 0,
                                std::int64_t i2 = 0) {
  return code == 0 ? Result() : reportSystemFailure(metaData, code, s1, s2, i1, i2);
}

/// As reportError(), with 8-bit strings.
Result reportErrorNarrow(MetaData* metaData, Own code, const char* s1 = nullptr,
                         const char* s2 = nullptr, std::int64_t i1 = 0, std::int64_t i2 = 0);

}  // namespace zelta

#endif  // ZELTA_FRAME_RESULT_H
