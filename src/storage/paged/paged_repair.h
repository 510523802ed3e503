// What becomes of a paged file whose writer died: whoever reads its header next, and may write,
// carries the journal out or drops it before anything else is read. PagedFlush is the writer's
// side; storage/paged/paged_file.h says what can be found.

#ifndef ZELTA_STORAGE_PAGED_PAGED_REPAIR_H
#define ZELTA_STORAGE_PAGED_PAGED_REPAIR_H

#include "storage/paged/atomic_manager.h"
#include "storage/paged/paged_file.h"

namespace zelta {

/// What was made of a change that was under way.
enum class PagedRepair {
  dropped,         ///< the file is as before it
  carriedOut,      ///< the file is as after it
  unfinishedBuild  ///< nothing yet: the file was being built, and has to be given up
};

/// Carries out or drops the journal that stands in the table's open file; it can die and be done
/// again. `header` and `image` hold what was read of the header, maybe without the roots; a success
/// leaves both as the file has them. The file is cut at its end. `*outcome` is also set if carrying
/// it out fails. Needs the table's mutex and leave to write; the manager needs no file attached. A
/// header that contradicts itself: the form's damage.
Result repairPagedFile(const PagedForm& form, const AtomicManager& manager, PagedFileHeader& header,
                       PagedHeaderImage& image, PagedRepair* outcome);

}  // namespace zelta

#endif  // ZELTA_STORAGE_PAGED_PAGED_REPAIR_H
