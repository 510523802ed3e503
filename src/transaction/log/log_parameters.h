// The parameters of a database that can be set: all of them are about its log.

#ifndef ZELTA_TRANSACTION_LOG_LOG_PARAMETERS_H
#define ZELTA_TRANSACTION_LOG_LOG_PARAMETERS_H

#include "czelta.h"
#include "frame/metadata.h"

namespace zelta {

/// For an exclusive transaction. Own code 7 for a parameter that cannot be set.
Result setDatabaseParameter(MetaData& metaData, CZELTA::Parameter parameter, long long value);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_LOG_LOG_PARAMETERS_H
