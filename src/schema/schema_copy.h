// The copy of a schema that a table owns: one allocation, so that it can be handed out and
// relocated. A caller's schema is copied first and looked at afterwards, so that nobody changes it
// meanwhile; what is derived goes back to the caller's records at the end.

#ifndef ZELTA_SCHEMA_SCHEMA_COPY_H
#define ZELTA_SCHEMA_SCHEMA_COPY_H

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "czelta.h"
#include "frame/metadata.h"

namespace zelta {

/// Schemas are malloc'd, since the public interface hands them out.
struct FreeSchema {
  void operator()(CZELTA::Schema* schema) const { std::free(schema); }
};

/// A schema in one allocation: the record, the fields, the sub-fields, the indexes, the segments,
/// the names. The texts of table name and path are not part of it.
struct SchemaCopy {
  std::unique_ptr<CZELTA::Schema, FreeSchema> schema;
  std::uint32_t bytes = 0;
};

/// How much a copy has to hold.
struct SchemaCounts {
  std::uint64_t fields = 0;
  std::uint64_t subFields = 0;
  std::uint64_t indexes = 0;
  std::uint64_t segments = 0;
  std::uint64_t nameUnits = 0;  ///< terminators included
};

/// Gives out the parts of a copy in their order.
class SchemaArena {
 public:
  /// Allocates a zeroed copy of this size. Throws std::bad_alloc, also beyond 32 bits.
  explicit SchemaArena(const SchemaCounts& counts);
  [[nodiscard]] CZELTA::Schema& schema() { return *copy_.schema; }
  /// The next so many records of a kind. No more than the counts said may be taken.
  CZELTA::Schema::Field* takeFields(std::uint64_t count);
  CZELTA::Schema::Field* takeSubFields(std::uint64_t count);
  CZELTA::Schema::Index* takeIndexes(std::uint64_t count);
  CZELTA::Schema::Segment* takeSegments(std::uint64_t count);
  /// Copies a text; `units` without its terminator.
  const char16_t* takeName(const void* text, std::uint64_t units);
  SchemaCopy finish() { return std::move(copy_); }

 private:
  SchemaCopy copy_;
  CZELTA::Schema::Field* fields_ = nullptr;
  CZELTA::Schema::Field* subFields_ = nullptr;
  CZELTA::Schema::Index* indexes_ = nullptr;
  CZELTA::Schema::Segment* segments_ = nullptr;
  char16_t* names_ = nullptr;
};

/// Copies a caller's schema. Arrays that are announced but missing are own code 7 with the table's
/// name; missing sub-fields and names stay null for validation to find.
Result copySchema(MetaData& metaData, const CZELTA::Schema& source, SchemaCopy& out);

/// Writes the derived members of a validated copy back into the caller's records, where they
/// differ.
void writeBackDerived(const CZELTA::Schema& copy, const CZELTA::Schema& caller);

/// Moves all pointers that lead into `from` .. `from` + `bytes` so that they lead into `to`.
void relocateSchema(CZELTA::Schema& schema, const CZELTA::Schema* from);

}  // namespace zelta

#endif  // ZELTA_SCHEMA_SCHEMA_COPY_H
