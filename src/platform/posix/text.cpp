// Classes and cases of characters come from the C.UTF-8 locale, whatever the process has set.

#include "platform/text.h"

#include <locale.h>
#include <wctype.h>

#include "platform/posix/posix_internal.h"

namespace zelta::platform {

namespace {

locale_t fixedLocale() {
  static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  return locale;
}

/// While the library is loaded: a fork may fall into the first use of it by another thread.
[[maybe_unused]] const locale_t localeAtLoad = fixedLocale();

}  // namespace

bool isAlphanumeric(char32_t c) {
  if (c < 0x80) return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
  return iswalnum_l(static_cast<wint_t>(c), fixedLocale()) != 0;
}
bool isSpace(char32_t c) {
  if (c < 0x80) return c == ' ' || (c >= '\t' && c <= '\r');
  return iswspace_l(static_cast<wint_t>(c), fixedLocale()) != 0;
}
bool isLower(char32_t c) {
  if (c < 0x80) return c >= 'a' && c <= 'z';
  return iswlower_l(static_cast<wint_t>(c), fixedLocale()) != 0;
}
bool isUpper(char32_t c) {
  if (c < 0x80) return c >= 'A' && c <= 'Z';
  return iswupper_l(static_cast<wint_t>(c), fixedLocale()) != 0;
}
char32_t toUpper(char32_t c) {
  if (c < 0x80) return isLower(c) ? c - 32 : c;
  return static_cast<char32_t>(towupper_l(static_cast<wint_t>(c), fixedLocale()));
}
char32_t toLower(char32_t c) {
  if (c < 0x80) return isUpper(c) ? c + 32 : c;
  return static_cast<char32_t>(towlower_l(static_cast<wint_t>(c), fixedLocale()));
}

std::string posix::pathOf(const char16_t* name) { return narrow(name); }

}  // namespace zelta::platform
