// Texts of the failure codes, with the capacity of each in 16-bit units. A text is made when a
// failure is reported, into a buffer of that capacity; what does not fit is cut.

#ifndef ZELTA_FRAME_MESSAGES_H
#define ZELTA_FRAME_MESSAGES_H

#include <cstdint>

#include "frame/message_format.h"

namespace zelta {

/// Stands for a text that was not given. Forms that depend on whether one was compare the address.
extern const char16_t kNoText[];

/// What a text is made of: two texts, never null (kNoText for none), and two numbers.
struct MessageInput {
  const char16_t* s1;
  const char16_t* s2;
  std::int64_t i1;
  std::int64_t i2;
  [[nodiscard]] bool hasS1() const { return s1 != kNoText; }
  [[nodiscard]] bool hasS2() const { return s2 != kNoText; }
};

/// Units that the text's buffer has, terminator included.
[[nodiscard]] std::size_t ownMessageCapacity(std::uint32_t code, const MessageInput& in);
/// Writes the text of one of the library's own codes, of a code of the system.
void writeOwnMessage(std::uint32_t code, const MessageInput& in, MessageWriter& out);
[[nodiscard]] std::size_t systemMessageCapacity(std::uint32_t code, const MessageInput& in);
void writeSystemMessage(std::uint32_t code, const MessageInput& in, MessageWriter& out);

}  // namespace zelta

#endif  // ZELTA_FRAME_MESSAGES_H
