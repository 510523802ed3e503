// Classes and cases of characters from tables of the library's own.

#ifndef ZELTA_PLATFORM_WINDOWS_CHARACTER_TABLES_H
#define ZELTA_PLATFORM_WINDOWS_CHARACTER_TABLES_H

namespace zelta::platform::tables {

[[nodiscard]] bool isAlphanumeric(char32_t c);
[[nodiscard]] bool isSpace(char32_t c);
[[nodiscard]] bool isLower(char32_t c);
[[nodiscard]] bool isUpper(char32_t c);
[[nodiscard]] char32_t toUpper(char32_t c);
[[nodiscard]] char32_t toLower(char32_t c);

}  // namespace zelta::platform::tables

#endif  // ZELTA_PLATFORM_WINDOWS_CHARACTER_TABLES_H
