// An offline checker: walks all files of a database that nobody has in work and reports what
// contradicts their formats or each other. It changes nothing, and no content of a file can harm
// it: it reads with parsers of its own, which take nothing for granted.

#ifndef ZELTA_CHECK_CHECK_H
#define ZELTA_CHECK_CHECK_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zelta {

enum class CheckKind {
  damage,       ///< an invariant is broken
  pendingWork,  ///< something that a recovery has yet to finish or to take back
  remains       ///< harmless: the library clears it away, or writes over it, when it comes by
};

/// One contradiction, and where it was met.
struct CheckFinding {
  CheckKind kind;
  std::string file;      ///< path
  std::uint64_t offset;  ///< of the bytes that are wrong, as closely as they are known
  std::string what;
};

/// How much is wanted.
struct CheckOptions {
  std::size_t maximumFindings = 100;  ///< the check ends when it has found so many
  bool remains = false;               ///< report harmless remains too
};

/// How much was looked at.
struct CheckCounts {
  std::uint64_t tables = 0;
  std::uint64_t objects = 0;
  std::uint64_t indexes = 0;     ///< whose trees were walked
  std::uint64_t keys = 0;        ///< that agree with an object
  std::uint64_t pages = 0;       ///< of all trees
  std::uint64_t logEntries = 0;  ///< in all log files
  std::uint64_t notChecked = 0;  ///< indexes of a kind that the checker does not know
};

/// Checks the database of this control file (its path with ".zlc"). No transaction may be open on
/// it, in any process. `counts` may be null. Throws std::bad_alloc only when the list of findings
/// itself finds no memory.
[[nodiscard]] std::vector<CheckFinding> checkDatabase(const std::u16string& controlPath,
                                                      const CheckOptions& options = {},
                                                      CheckCounts* counts = nullptr);

/// One line: kind, file, offset, what.
[[nodiscard]] std::string describe(const CheckFinding& finding);

}  // namespace zelta

#endif  // ZELTA_CHECK_CHECK_H
