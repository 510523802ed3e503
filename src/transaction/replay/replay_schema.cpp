#include "transaction/replay/replay_schema.h"

#include <cstring>
#include <limits>

#include "frame/control_file.h"
#include "frame/mutex_guard.h"
#include "frame/table_directory.h"
#include "schema/stored_schema.h"
#include "schema/table_create.h"
#include "schema/table_lifecycle.h"

namespace zelta {

namespace {

/// The body of a record: a directory entry, then what its operation adds.
class RecordBody {
 public:
  /// False if the entry is cut short. The bytes outlive the body.
  [[nodiscard]] bool parse(const char* bytes, std::size_t length) {
    next_ = bytes;
    end_ = bytes + length;
    return takeNumber(&entry.tableId) && takeNumber(&entry.lockOrder) && takeText(&entry.name) &&
           takeText(&entry.indexPath);
  }
  [[nodiscard]] const char* rest() const { return next_; }
  [[nodiscard]] const char* end() const { return end_; }

  DirectoryEntry entry{};

 private:
  [[nodiscard]] bool takeNumber(std::uint32_t* out) {
    if (static_cast<std::size_t>(end_ - next_) < sizeof *out) return false;
    std::memcpy(out, next_, sizeof *out);
    next_ += sizeof *out;
    return true;
  }
  [[nodiscard]] bool takeText(std::u16string* out) {
    for (;;) {
      char16_t unit = 0;
      if (static_cast<std::size_t>(end_ - next_) < sizeof unit) return false;
      std::memcpy(&unit, next_, sizeof unit);
      next_ += sizeof unit;
      if (unit == 0) return true;
      *out += unit;
    }
  }

  const char* next_ = nullptr;
  const char* end_ = nullptr;
};

/// Numbers of entries come again, and entries stay: the change may be one of long ago.
Result isMade(MetaData& metaData, const LogSchemaSection_tag& section, bool removal,
              const DirectoryEntry& wanted, bool* made) {
  MutexGuard database;
  ZELTA_TRY(database.acquire(metaData, metaData.databaseMutex, kLongWait));
  ControlHeader_tag header;
  ZELTA_TRY(refreshControlHeader(metaData, header));
  TableDirectory directory;
  ZELTA_TRY(directory.read(metaData, header));
  const DirectoryEntry* entry = directory.find(section.tableId);
  *made =
      removal ? entry == nullptr : entry != nullptr && compareNames(entry->name, wanted.name) == 0;
  return reportSystemError(&metaData, database.release(), metaData.baseName.c_str(),
                           extension::kControl);
}

Result createFromRecord(const Session& session, const RecordBody& body) {
  SchemaCopy copy;
  const char* extra = nullptr;
  if (!schemaFromRecord(body.rest(), body.end(), body.entry.tableId, body.entry.lockOrder, copy,
                        &extra)) {
    return EntryReader::malformed();
  }
  copy.schema->tableName = body.entry.name.c_str();
  copy.schema->tablePath = body.entry.indexPath.empty() ? nullptr : body.entry.indexPath.c_str();
  return createTable(session, copy.schema.get(), nullptr, false);
}

}  // namespace

Result replaySchemaSection(const Session& session, EntryReader& reader,
                           const LogSchemaSection_tag& section) {
  const auto operation = static_cast<DirectoryChange>(section.operation);
  const bool removal =
      operation == DirectoryChange::remove || operation == DirectoryChange::removeFiles;
  RecordBody body;
  std::string bytes;  // the reader's are gone when files are opened
  if (removal) {
    ZELTA_TRY(reader.skip(section.bodyLength));
  } else {
    if (section.bodyLength > std::numeric_limits<std::uint32_t>::max()) {
      return EntryReader::malformed();
    }
    const char* data = nullptr;
    ZELTA_TRY(reader.take(static_cast<std::uint32_t>(section.bodyLength), &data));
    bytes.assign(data, section.bodyLength);
    if (!body.parse(bytes.data(), bytes.size()) || body.entry.tableId != section.tableId) {
      return EntryReader::malformed();
    }
  }
  bool made = false;
  switch (operation) {
    case DirectoryChange::create:
    case DirectoryChange::add:
    case DirectoryChange::remove:
    case DirectoryChange::removeFiles:
      ZELTA_TRY(isMade(session.metaData, section, removal, body.entry, &made));
      break;
    case DirectoryChange::changeSchema:
      return reportError(&session.metaData, Own::context);
    default:
      return EntryReader::malformed();
  }
  if (made) return {};
  if (removal) {
    return removeTable(session, section.tableId, operation == DirectoryChange::removeFiles, false);
  }
  if (!isTableName(body.entry.name)) return EntryReader::malformed();
  if (operation == DirectoryChange::create) return createFromRecord(session, body);
  const DirectoryEntry& entry = body.entry;
  return addTable(session, entry.name.c_str(), entry.tableId, entry.indexPath.c_str(),
                  entry.lockOrder, false);
}

}  // namespace zelta
