// Lists of words in index files: trees whose keys are texts, and beside each word the object that
// has it, or a chain of pages with all that do.

#ifndef ZELTA_CHECK_CHECK_LIST_H
#define ZELTA_CHECK_CHECK_LIST_H

#include "check/check_entries.h"

namespace zelta::check {

/// Each walks a list, of words in 8-bit or in 16-bit characters: form of the nodes, order of keys,
/// separators, links of the leaves, chains. A key's hash is that of its prefix and its word, without
/// the end of the text. False if parts of the list could not be walked.
bool checkAsciiList(const WalkContext& context);
bool checkWideList(const WalkContext& context);

}  // namespace zelta::check

#endif  // ZELTA_CHECK_CHECK_LIST_H
