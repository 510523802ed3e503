// Between UTF-8 and UTF-16.

#include <cstdint>

#include "platform/text.h"

namespace zelta::platform {

namespace {

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

}  // namespace zelta::platform
