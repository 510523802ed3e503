// Ending transactions: what is not committed is dropped, tables are closed, and the slot is
// released, unless a repair has to find it (MetaData::leaveSlot).

#include "frame/upcalls.h"
#include "transaction/commit/abort.h"
#include "transaction/slots/slots.h"

namespace zelta {

namespace {

/// What a transaction holds in the control file.
Result releasePlace(MetaData& metaData) {
  if (metaData.transactionWord == 0) return {};
  if (!metaData.mayWrite()) {
    if (metaData.transactionWord != kExclusiveNumber) return {};
    return reportControlFile(metaData, platform::releaseMutex(metaData.databaseMutex));
  }
  const Slot slot(metaData.controlFile, metaData.slotPosition);
  if (metaData.leaveSlot) {
    slot.unlockOwner();
    return {};
  }
  return releaseSlot(metaData, slot);
}

}  // namespace

Result endTransaction(const Session& session) {
  ZELTA_TRY(abortTransaction(session, true));
  destroyTables(session);
  const Result result = releasePlace(session.metaData);
  session.metaData.leaveTransaction();
  session.metaData.leaveSlot = false;
  return result;
}

}  // namespace zelta
