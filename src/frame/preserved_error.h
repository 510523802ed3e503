// Preserves the text of a failure while things are cleaned up behind it: what the caller is told is
// what went wrong first, whatever the clean-up meets.

#ifndef ZELTA_FRAME_PRESERVED_ERROR_H
#define ZELTA_FRAME_PRESERVED_ERROR_H

#include <utility>

#include "frame/metadata.h"

namespace zelta {

/// What fails until the end of the scope leaves no text: the one from before is pending again then.
class PreservedError {
 public:
  explicit PreservedError(MetaData& metaData)
      : metaData_(metaData), text_(std::exchange(metaData.errorMessage, nullptr)) {}
  ~PreservedError() {
    clearError(metaData_);
    metaData_.errorMessage = text_;
  }
  PreservedError(const PreservedError&) = delete;
  PreservedError& operator=(const PreservedError&) = delete;

 private:
  MetaData& metaData_;
  char16_t* text_;
};

}  // namespace zelta

#endif  // ZELTA_FRAME_PRESERVED_ERROR_H
