// Carrying a plan out in a table file, through its journal.

#ifndef ZELTA_TRANSACTION_PLAN_EXECUTION_H
#define ZELTA_TRANSACTION_PLAN_EXECUTION_H

#include "transaction/edit_plan.h"

namespace zelta {

/// `header` is the table's present one. The images lie in `imageFile`, each 4 bytes behind the
/// position that the plan has for it. `transaction` is noted in the intent.
Result executePlan(MetaData& metaData, Table& table, const TableHeader_tag& header, EditPlan& plan,
                   platform::File imageFile, std::uint32_t transaction);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_PLAN_EXECUTION_H
