// Between UTF-8 and UTF-16.

#include <cstdint>
#include <cstring>

#include "platform/text.h"

namespace zelta::platform {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

/// Writes the bytes of a code point, four at most; returns their number.
std::size_t encodeUtf8(char32_t c, char* out) {
  if (c < 0x80) {
    out[0] = static_cast<char>(c);
    return 1;
  }
  const std::size_t more = c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
  constexpr unsigned kLeads[] = {0, 0xC0, 0xE0, 0xF0};
  for (std::size_t i = more; i > 0; --i, c >>= 6) out[i] = static_cast<char>(0x80 | (c & 0x3F));
  out[0] = static_cast<char>(kLeads[more] | c);
  return more + 1;
}

/// The code point at `text`, which moves behind it. A surrogate without its other half stands for
/// itself.
char32_t decodeUtf16(const char16_t*& text) {
  const char32_t c = *text++;
  if (c < 0xD800 || c >= 0xDC00 || *text < 0xDC00 || *text >= 0xE000) return c;
  return 0x10000 + ((c - 0xD800) << 10) + (*text++ - 0xDC00u);
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
  while (*text != 0) {
    char bytes[4];
    out.append(bytes, encodeUtf8(decodeUtf16(text), bytes));
  }
  return out;
}

bool narrowInto(const char16_t* text, char* out, std::size_t size) {
  while (*text != 0) {
    char bytes[4];
    const std::size_t count = encodeUtf8(decodeUtf16(text), bytes);
    if (count >= size) return false;
    std::memcpy(out, bytes, count);
    out += count;
    size -= count;
  }
  *out = 0;
  return true;
}

}  // namespace zelta::platform
