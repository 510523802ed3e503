// The versions of the objects that a commit changes, before and after, for the indexes that follow
// contents. Replay reads the ones before here as well, those after from the log.

#ifndef ZELTA_TRANSACTION_COMMIT_VERSION_READER_H
#define ZELTA_TRANSACTION_COMMIT_VERSION_READER_H

#include "index/contents.h"
#include "storage/table_file/table_file.h"
#include "transaction/commit/image_reader.h"

namespace zelta {

/// The committed version of an object, in the object scratch buffer; none if only a placeholder
/// stands there: its content is still to come from the log.
Result readCommittedVersion(Table& table, const TableHeader_tag& header, std::uint64_t objectID,
                            ObjectBytes* object);

/// Both versions, while the pending one stands in the memory file.
class VersionReader final : public VersionSource {
 public:
  /// `header` is the table's present one. `images` reads the memory file.
  VersionReader(AtomicManager& manager, const TableHeader_tag& header, ImageReader& images)
      : manager_(manager), header_(header), images_(images) {}

  Result readBefore(std::uint64_t objectID, ObjectBytes* object) override;
  /// Own code 31: the transaction has no version of it.
  Result readAfter(std::uint64_t objectID, ObjectBytes* object) override;

 private:
  AtomicManager& manager_;
  const TableHeader_tag& header_;
  ImageReader& images_;
};

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_COMMIT_VERSION_READER_H
