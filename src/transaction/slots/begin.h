// Beginning transactions: modes, and who may live beside whom.

#ifndef ZELTA_TRANSACTION_SLOTS_BEGIN_H
#define ZELTA_TRANSACTION_SLOTS_BEGIN_H

#include <cstdint>

#include "czelta.h"
#include "frame/metadata.h"

namespace zelta {

/// Begins a transaction of the calling thread and repairs dead ones that it meets. `timeout` in
/// milliseconds. The time is over: own code for a locked database.
Result beginTransaction(const Session& session, CZELTA::Mode mode, std::uint32_t timeout);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_SLOTS_BEGIN_H
