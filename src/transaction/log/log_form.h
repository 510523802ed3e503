// The form of the log, as a parameter of the database sets it.
//
// The transaction that sets it is alone, and all that was committed before is carried out: a log
// without an entry is right then, whatever its form. An old entry is not: the proof that it is out
// of date lies in entries behind it, and these may be gone, or never have been logged in this form.
// So each step below leaves either the log that was, or one without an entry:
//  1. Keeping logs, file 0 is emptied. If it lies between others that are kept, those before it go
//     out of use first.
//  2. One write makes file 0 the only one in use, and the form the numbered one.
//  3. Giving kept logs up, the single file is the log before any of the others is deleted.
// Where a loss of power must not swap two steps, a flush stands between them.

#ifndef ZELTA_TRANSACTION_LOG_LOG_FORM_H
#define ZELTA_TRANSACTION_LOG_LOG_FORM_H

#include "frame/control_file.h"

namespace zelta {

/// Lets the database keep numbered log files, from file 0 on, which is begun anew even if they are
/// kept already; or gives them up for the single form. For an exclusive transaction whose commits
/// are carried out.
Result setLogForm(MetaData& metaData, ControlHeader_tag& header, bool keep);

}  // namespace zelta

#endif  // ZELTA_TRANSACTION_LOG_LOG_FORM_H
