// Characters and names. Classes and cases come from the C.UTF-8 locale, whatever the process has
// set.

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

constexpr char32_t kReplacement = 0xFFFD;

void appendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

/// The code point at `text`, which moves behind it. Malformed bytes give the replacement, one at a
/// time.
char32_t decodeUtf8(const unsigned char*& text) {
  const unsigned char lead = *text++;
  if (lead < 0x80) return lead;
  const int more = lead >= 0xF0 && lead < 0xF5   ? 3
                   : lead >= 0xE0 && lead < 0xF0 ? 2
                   : lead >= 0xC2 && lead < 0xE0 ? 1
                                                 : 0;
  if (more == 0) return kReplacement;
  char32_t c = lead & (0x3Fu >> more);
  const unsigned char* p = text;
  for (int i = 0; i < more; ++i, ++p) {
    if ((*p & 0xC0) != 0x80) return kReplacement;
    c = (c << 6) | (*p & 0x3Fu);
  }
  constexpr char32_t kLeast[] = {0, 0x80, 0x800, 0x10000};
  if (c < kLeast[more] || c > 0x10FFFF || (c >= 0xD800 && c < 0xE000)) return kReplacement;
  text = p;
  return c;
}

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

std::u16string widen(const char* text) {
  std::u16string out;
  const auto* p = reinterpret_cast<const unsigned char*>(text);
  while (*p != 0) {
    const char32_t c = decodeUtf8(p);
    if (c < 0x10000) {
      out += static_cast<char16_t>(c);
    } else {
      out += static_cast<char16_t>(0xD7C0 + (c >> 10));
      out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    }
  }
  return out;
}

std::string narrow(const char16_t* text) {
  std::string out;
  for (; *text != 0; ++text) {
    char32_t c = *text;
    if (c >= 0xD800 && c < 0xDC00 && text[1] >= 0xDC00 && text[1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[1] - 0xDC00u);
      ++text;
    }
    appendUtf8(out, c);
  }
  return out;
}

std::string posix::pathOf(const char16_t* name) { return narrow(name); }

}  // namespace zelta::platform
