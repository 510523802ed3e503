// The table file: header and stored schema.

#include <algorithm>

#include "check/check_journal.h"
#include "check/check_table.h"
#include "schema/stored_schema.h"
#include "schema/table_load.h"
#include "schema/validate.h"

namespace zelta::check {

namespace {

constexpr std::uint64_t kHeader = 168;
constexpr std::uint64_t kCommit = 72;  ///< here the numbers of a commit under way begin
constexpr std::uint64_t kSlot = 12;

}  // namespace

TableCheck::TableCheck(Findings& findings, const std::u16string& folder,
                       const DirectoryTable& entry, const std::vector<PendingSection>& pending)
    : findings_(findings),
      entry_(entry),
      folder_(folder),
      file_(folder + entry.name + extension::kTable),
      slots_(folder + entry.name + extension::kTable),
      pending_(pending) {}

/// Header and schema are what all else is measured by: without them there is nothing to go on with.
void TableCheck::run() {
  if (!file_.isOpen() || !slots_.isOpen()) {
    findings_.damage(file_, 0, "file cannot be opened, code " + text(file_.failure()));
    return;
  }
  if (!checkHeader()) return;
  if (!checkSchema()) return;
  takePending();
  ++findings_.counts.tables;
  keys_.resize(table_.indexCount);
  checkObjects();
  checkIndexFile();
  checkMemoryFile();
}

/// The header as it is once a commit that was cut off is played through.
bool TableCheck::checkHeader() {
  const char* header = file_.view(0, kHeader);
  if (header == nullptr) {
    findings_.damage(file_, 0, "file is shorter than its header");
    return false;
  }
  if (std::memcmp(header, "ZELT", 4) != 0) {
    findings_.damage(file_, 0, "wrong magic");
    return false;
  }
  if (load<std::uint16_t>(header, 4) != 1 || load<std::uint16_t>(header, 6) != 4) {
    findings_.damage(file_, 4, "unknown version");
    return false;
  }
  if (!checkCommit()) return false;
  header = file_.view(0, kHeader);
  if (header == nullptr) return false;
  facts_.slotBase = load<std::uint32_t>(header, 8);
  facts_.schemaSize = load<std::uint32_t>(header, 12);
  facts_.headerSize = load<std::uint32_t>(header, 16);
  facts_.fixedAreaSize = load<std::uint32_t>(header, 20);
  facts_.minimumObjectSize = load<std::uint32_t>(header, 24);
  facts_.defaultObjectSize = load<std::uint32_t>(header, 28);
  facts_.highestID = load<std::uint64_t>(header, 32);
  facts_.firstDeletedID = load<std::uint64_t>(header, 40);
  facts_.areaStart = load<std::uint64_t>(header, 48);
  facts_.freeHead = load<std::uint64_t>(header, 56);
  facts_.end = load<std::uint64_t>(header, 64);
  return checkNumbers();
}

/// Whether the header's numbers agree with each other and the file, so that one can go on.
bool TableCheck::checkNumbers() {
  const auto wrong = [&](std::uint64_t offset, const char* what) {
    findings_.damage(file_, offset, what);
    return false;
  };
  if (facts_.schemaSize > file_.size() - kHeader) return wrong(12, "schema passes the file's end");
  const std::uint64_t slotsStart = (std::uint64_t{facts_.schemaSize} + 171) / 4 * 4;
  if (facts_.slotBase != slotsStart - kSlot) return wrong(8, "slots do not follow the schema");
  if (facts_.end > file_.size()) return wrong(64, "object area ends behind the file");
  if (facts_.areaStart > facts_.end) return wrong(48, "object area begins behind its end");
  if (facts_.areaStart < slotsStart) return wrong(48, "object area begins ahead of the slots");
  if (facts_.highestID > (facts_.areaStart - slotsStart) / kSlot) {
    return wrong(32, "slots of the IDs in use reach into the object area");
  }
  if (facts_.firstDeletedID != 0 && facts_.firstDeletedID >= facts_.highestID) {
    wrong(40, "first free ID is not below the highest one");
  }
  if (facts_.end < file_.size()) {
    findings_.remains(file_, facts_.end, "bytes behind the end of the object area");
  }
  return true;
}

/// False if there is no telling what the table will be.
bool TableCheck::checkCommit() {
  constexpr std::uint64_t kCommitEnd = 88;
  const Change change = seeTableChange(file_);
  slots_.seeAs(file_);
  if (change != Change::none) findings_.pending(file_, kCommitEnd, "a commit was cut off");
  if (change == Change::impossible) {
    findings_.damage(file_, kCommitEnd, "the commit cannot be finished");
    return false;
  }
  if (const std::uint64_t at = file_.firstNonzero(kCommit, kHeader); at != kHeader) {
    findings_.remains(file_, at, "rest of a commit without its end");
  }
  return true;
}

/// What the log still has for this table.
void TableCheck::takePending() {
  for (const PendingSection& section : pending_) {
    if (section.tableID != entry_.id) continue;
    PendingCommit commit;
    if (readPending(section, facts_.headerSize - 2, commit)) {
      commits_.push_back(std::move(commit));
    } else {
      findings_.damage(*section.log, section.at, "section does not fit its table");
    }
  }
}

/// The block must be just what the schema in it would be stored as, and the header's sizes those
/// that follow from it.
bool TableCheck::checkSchema() {
  const char* bytes = file_.view(kHeader, facts_.schemaSize);
  if (bytes == nullptr) {
    findings_.damage(file_, kHeader, "schema cannot be read");
    return false;
  }
  const std::string block(bytes, facts_.schemaSize);
  SchemaCopy copy;
  if (!expandStoredSchema(block.data(), facts_.schemaSize, copy)) {
    findings_.damage(file_, kHeader, "schema's parts do not lie as they are written");
    return false;
  }
  ObjectSizes sizes;
  if (validateSchema(metaData_, *copy.schema, sizes).failed()) {
    findings_.damage(file_, kHeader, "schema breaks a rule");
    return false;
  }
  if (!compareSizes(block, *copy.schema)) return false;
  const std::pair<std::uint64_t, bool> agree[] = {
      {16, sizes.headerSize == facts_.headerSize},
      {20, sizes.fixedAreaSize == facts_.fixedAreaSize},
      {24, sizes.minimumObjectSize == facts_.minimumObjectSize},
      {28, sizes.defaultObjectSize == facts_.defaultObjectSize}};
  for (const auto& [offset, same] : agree) {
    if (same) continue;
    findings_.damage(file_, offset, "a size is not the one that follows from the schema");
    return false;
  }
  const std::uint64_t padding = kHeader + facts_.schemaSize;
  const std::uint64_t slots = facts_.slot(1);
  if (const std::uint64_t at = file_.firstNonzero(padding, slots); at != slots) {
    findings_.damage(file_, at, "padding behind the schema is not zero");
  }
  constexpr std::uint64_t kNarrow = 6;
  if (facts_.headerSize == kNarrow && facts_.highestID > 0xFFFFFFFF) {
    findings_.damage(file_, 32, "an ID has more than 32 bits");
  }
  takeSchema(table_, std::move(copy), sizes, facts_.slotBase,
             {entry_.id, entry_.lockOrder, entry_.name, entry_.indexPath});
  table_.name = entry_.name;
  return true;
}

/// After validation the schema has all derived members as they must be.
bool TableCheck::compareSizes(const std::string& block, const CZELTA::Schema& schema) {
  const std::string expected = storedSchemaLike(schema, block);
  const auto [left, right] =
      std::mismatch(block.begin(), block.end(), expected.begin(), expected.end());
  if (left == block.end() && right == expected.end()) return true;
  findings_.damage(file_, kHeader + static_cast<std::uint64_t>(left - block.begin()),
                   "schema differs from what follows from its fields and indexes");
  return false;
}

void checkTable(Findings& findings, const std::u16string& folder, const DirectoryTable& entry,
                const std::vector<PendingSection>& pending) {
  TableCheck(findings, folder, entry, pending).run();
}

}  // namespace zelta::check
