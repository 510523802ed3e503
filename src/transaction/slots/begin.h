// Beginning transactions: modes, and who may live beside whom. A writer takes a slot in the control
// file, whose second word it keeps locked as a sign of life; an exclusive one takes the place in
// the header, alone. A reader takes neither.

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
