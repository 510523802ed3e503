// The database's list of tables and its settings.

#ifndef ZELTA_FRAME_PARAMETERS_H
#define ZELTA_FRAME_PARAMETERS_H

#include "czelta.h"
#include "frame/metadata.h"

namespace zelta {

Result getDatabaseMembers(MetaData& metaData, CZELTA::DatabaseMember* members, unsigned int* size);
Result getDatabaseParameter(MetaData& metaData, CZELTA::Parameter parameter, long long* value);

}  // namespace zelta

#endif  // ZELTA_FRAME_PARAMETERS_H
