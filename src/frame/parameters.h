// The database's list of tables and its settings, as the control file has them. The caller has made
// sure of an open database, and of a transaction of the right mode.

#ifndef ZELTA_FRAME_PARAMETERS_H
#define ZELTA_FRAME_PARAMETERS_H

#include "czelta.h"
#include "frame/metadata.h"

namespace zelta {

/// The tables of the directory, as the public operation describes them.
Result getDatabaseMembers(MetaData& metaData, CZELTA::DatabaseMember* members, unsigned int* size);
/// A setting. Own code 7: there is no such parameter.
Result getDatabaseParameter(MetaData& metaData, CZELTA::Parameter parameter, long long* value);

}  // namespace zelta

#endif  // ZELTA_FRAME_PARAMETERS_H
