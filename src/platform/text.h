// Classes and cases of characters, in one fixed locale: what the application sets with setlocale()
// has no influence, so that all programs build the same keys.

#ifndef ZELTA_PLATFORM_TEXT_H
#define ZELTA_PLATFORM_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace zelta::platform {

/// Tests and mappings of one code point.
[[nodiscard]] bool isAlphanumeric(char32_t character);
[[nodiscard]] bool isSpace(char32_t character);
[[nodiscard]] bool isLower(char32_t character);
[[nodiscard]] bool isUpper(char32_t character);
[[nodiscard]] char32_t toUpper(char32_t character);
[[nodiscard]] char32_t toLower(char32_t character);

/// UTF-8 to UTF-16; malformed bytes become U+FFFD.
[[nodiscard]] std::u16string widen(const char* text);

/// A UTF-16 name as this platform's file system has it (for messages of tools; paths are converted
/// inside the platform layer).
[[nodiscard]] std::string narrow(const char16_t* text);
/// The same without memory of its own. False if the room, at least 1, does not suffice.
[[nodiscard]] bool narrowInto(const char16_t* text, char* out, std::size_t size);

}  // namespace zelta::platform

#endif  // ZELTA_PLATFORM_TEXT_H
