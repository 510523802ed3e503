// Classes and cases of characters: ASCII at once, all else from the library's own tables.

#include "platform/text.h"

#include "platform/windows/character_tables.h"

namespace zelta::platform {

bool isAlphanumeric(char32_t c) {
  if (c < 0x80) return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
  return tables::isAlphanumeric(c);
}
bool isSpace(char32_t c) {
  if (c < 0x80) return c == ' ' || (c >= '\t' && c <= '\r');
  return tables::isSpace(c);
}
bool isLower(char32_t c) {
  if (c < 0x80) return c >= 'a' && c <= 'z';
  return tables::isLower(c);
}
bool isUpper(char32_t c) {
  if (c < 0x80) return c >= 'A' && c <= 'Z';
  return tables::isUpper(c);
}
char32_t toUpper(char32_t c) {
  if (c < 0x80) return isLower(c) ? c - 32 : c;
  return tables::toUpper(c);
}
char32_t toLower(char32_t c) {
  if (c < 0x80) return isUpper(c) ? c + 32 : c;
  return tables::toLower(c);
}

}  // namespace zelta::platform
