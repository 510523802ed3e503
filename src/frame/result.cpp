// The failure recorder.

#include "frame/result.h"

#include <cassert>
#include <cstdlib>
#include <new>

#include "frame/messages.h"
#include "frame/metadata.h"
#include "platform/text.h"

namespace zelta {

namespace {

/// Frees the pending text and stores an empty one of the given capacity. Without memory there is no
/// text.
char16_t* newText(MetaData& metaData, std::size_t capacity) {
  clearError(metaData);
  metaData.errorMessage = static_cast<char16_t*>(std::malloc(capacity * sizeof(char16_t)));
  return metaData.errorMessage;
}

MessageInput inputOf(const char16_t* s1, const char16_t* s2, std::int64_t i1, std::int64_t i2) {
  return {s1 == nullptr ? kNoText : s1, s2 == nullptr ? kNoText : s2, i1, i2};
}

}  // namespace

Result reportError(MetaData* metaData, Own code, const char16_t* s1, const char16_t* s2,
                   std::int64_t i1, std::int64_t i2) {
  if (metaData != nullptr) {
    const auto number = static_cast<std::uint32_t>(code);
    const MessageInput in = inputOf(s1, s2, i1, i2);
    const std::size_t capacity = ownMessageCapacity(number, in);
    if (char16_t* text = newText(*metaData, capacity); text != nullptr) {
      MessageWriter writer(text, capacity);
      writeOwnMessage(number, in, writer);
    }
  }
  return Result::own(code);
}

Result reportSystemFailure(MetaData* metaData, SystemCode code, const char16_t* s1,
                           const char16_t* s2, std::int64_t i1, std::int64_t i2) {
  assert(code != 0);
  if (metaData != nullptr) {
    const MessageInput in = inputOf(s1, s2, i1, i2);
    const std::size_t capacity = systemMessageCapacity(code, in);
    if (char16_t* text = newText(*metaData, capacity); text != nullptr) {
      MessageWriter writer(text, capacity);
      writeSystemMessage(code, in, writer);
    }
  }
  return Result::system(code);
}

Result reportErrorNarrow(MetaData* metaData, Own code, const char* s1, const char* s2,
                         std::int64_t i1, std::int64_t i2) {
  const std::u16string wide1 = s1 == nullptr ? std::u16string() : platform::widen(s1);
  const std::u16string wide2 = s2 == nullptr ? std::u16string() : platform::widen(s2);
  return reportError(metaData, code, s1 == nullptr ? nullptr : wide1.c_str(),
                     s2 == nullptr ? nullptr : wide2.c_str(), i1, i2);
}

}  // namespace zelta
