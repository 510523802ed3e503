// Keeps the text of a failure while things are cleaned up behind it.

#ifndef ZELTA_FRAME_KEPT_ERROR_H
#define ZELTA_FRAME_KEPT_ERROR_H

#include <utility>

#include "frame/metadata.h"

namespace zelta {

/// What fails until the end of the scope leaves no text: the one from before is pending again then.
class KeptError {
 public:
  explicit KeptError(MetaData& metaData)
      : metaData_(metaData), text_(std::exchange(metaData.errorMessage, nullptr)) {}
  ~KeptError() {
    clearError(metaData_);
    metaData_.errorMessage = text_;
  }
  KeptError(const KeptError&) = delete;
  KeptError& operator=(const KeptError&) = delete;

 private:
  MetaData& metaData_;
  char16_t* text_;
};

}  // namespace zelta

#endif  // ZELTA_FRAME_KEPT_ERROR_H
