// Commits that are decided and still to be carried out. They explain what would else be damage:
// placeholders in the table file, and keys that the index file has too early or no longer.

#ifndef ZELTA_CHECK_CHECK_PENDING_H
#define ZELTA_CHECK_CHECK_PENDING_H

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "check/check_control.h"
#include "check/check_file.h"

namespace zelta::check {

/// A table's section in the log entry of a transaction that has committed and did not end.
struct PendingSection {
  std::shared_ptr<CheckFile> log;
  std::uint32_t number;  ///< of the transaction
  std::uint32_t tableID;
  std::uint64_t at;   ///< of its head
  std::uint64_t end;  ///< of the entry
};
[[nodiscard]] std::vector<PendingSection> findPending(const std::u16string& folder,
                                                      const std::u16string& baseName,
                                                      const ControlFacts& facts);

/// What such a commit brings to one table, as the section of a log entry has it.
struct PendingCommit {
  struct Image {
    std::uint64_t position;  ///< of the object in the log
    std::uint32_t length;
  };
  std::shared_ptr<CheckFile> log;
  std::uint32_t number = 0;  ///< of the transaction
  std::map<std::uint64_t, Image> images;
  std::set<std::uint64_t> deleted;
  bool keysAhead = false;   ///< the index file has something of it
  bool keysBehind = false;  ///< it lacks something of it
};

/// False if the section makes no sense for IDs of so many bytes.
[[nodiscard]] bool readPending(const PendingSection& section, std::uint64_t idBytes,
                               PendingCommit& out);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_PENDING_H
