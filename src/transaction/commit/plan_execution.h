// Carrying a plan out in a table file, through its journal: steps 5.3 to 5.7 of a commit.
// table_recovery.h finishes what a death leaves in the middle.

#ifndef ZELTA_TRANSACTION_COMMIT_PLAN_EXECUTION_H
#define ZELTA_TRANSACTION_COMMIT_PLAN_EXECUTION_H

#include "transaction/commit/edit_plan.h"
#include "transaction/commit/image_reader.h"

namespace zelta {

/// A success means that the table file has the plan's state. After a failure before the commit
/// point of the table file it has the old one, behind it readTableHeader() finishes the work.
/// `header` is the table's present one. `images` reads the file in which the images lie, each 4
/// bytes behind the position that the plan has for it. `transaction` is noted in the intent.
Result executePlan(Table& table, const TableHeader_tag& header, EditPlan& plan, ImageReader& images,
                   std::uint32_t transaction);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_COMMIT_PLAN_EXECUTION_H
