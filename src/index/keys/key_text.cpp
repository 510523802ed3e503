#include "index/keys/key_text.h"

#include <cstring>

#include "czelta.h"
#include "index/keys/characters.h"
#include "platform/text.h"

namespace zelta {

namespace {

/// Goes through a text from either end.
class TextWalk {
 public:
  TextWalk(const KeyText& text, bool reversed)
      : begin_(reinterpret_cast<const unsigned char*>(text.bytes)),
        end_(begin_ + (text.wide ? text.length / 2 * 2 : text.length)),
        wide_(text.wide),
        reversed_(reversed) {}

  [[nodiscard]] bool atEnd() const { return begin_ == end_; }
  /// The next character, which stays.
  [[nodiscard]] Character peek() const { return reversed_ ? last() : first(); }
  void skip(const Character& c) {
    if (reversed_) {
      end_ -= c.size;
    } else {
      begin_ += c.size;
    }
  }

 private:
  [[nodiscard]] Character first() const {
    const auto left = static_cast<std::uint64_t>(end_ - begin_);
    return wide_ ? firstWide(begin_, left) : firstNarrow(begin_, left);
  }
  [[nodiscard]] Character last() const {
    const auto left = static_cast<std::uint64_t>(end_ - begin_);
    if (wide_) return left >= 4 && isPair(end_ - 4) ? wideAt(end_ - 4, 4) : wideAt(end_ - 2, 2);
    // Up to three continuation bytes, then a lead byte that asks for just that many.
    unsigned size = 1;
    while (size <= 4 && size <= left && (end_[-static_cast<int>(size)] & 0xC0) == 0x80) ++size;
    const bool whole =
        size > 1 && size <= 4 && size <= left && sequenceSize(end_ - size, size) == size;
    return whole ? narrowAt(end_ - size, size) : narrowAt(end_ - 1, 1);
  }

  const unsigned char* begin_;
  const unsigned char* end_;
  bool wide_;
  bool reversed_;
};

/// Punctuation that vanishes without a trace.
bool isTraceless(char32_t c) { return c == U'\'' || c == U',' || c == U'.'; }

unsigned numberBytes(std::uint32_t mode) {
  switch (mode & CZELTA::SegmentNumber64) {
    case CZELTA::SegmentNumber16:
      return 2;
    case CZELTA::SegmentNumber32:
      return 4;
    case CZELTA::SegmentNumber64:
      return 8;
    default:
      return 0;
  }
}

char32_t folded(char32_t c, std::uint32_t mode) {
  if (c == kNoCharacter) return c;
  if ((mode & CZELTA::SegmentUpperCase) != 0)
    return platform::isLower(c) ? platform::toUpper(c) : c;
  if ((mode & CZELTA::SegmentLowerCase) != 0)
    return platform::isUpper(c) ? platform::toLower(c) : c;
  return c;
}

/// A character's bytes after folding; at most four.
struct Encoded {
  unsigned char bytes[4];
  unsigned size = 0;
  void add(char32_t byte) { bytes[size++] = static_cast<unsigned char>(byte); }
};

void encodeNarrow(char32_t c, Encoded& out) {
  if (c < 0x80) {
    out.add(c);
  } else if (c < 0x800) {
    out.add(0xC0 | (c >> 6));
    out.add(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out.add(0xE0 | (c >> 12));
    out.add(0x80 | ((c >> 6) & 0x3F));
    out.add(0x80 | (c & 0x3F));
  } else {
    out.add(0xF0 | (c >> 18));
    out.add(0x80 | ((c >> 12) & 0x3F));
    out.add(0x80 | ((c >> 6) & 0x3F));
    out.add(0x80 | (c & 0x3F));
  }
}

void addUnit(char32_t unit, Encoded& out) {
  out.add(unit >> 8);
  out.add(unit & 0xFF);
}

Encoded encode(const Character& c, std::uint32_t mode, bool wide) {
  Encoded out;
  const char32_t value = folded(c.value, mode);
  if (wide) {
    if (value < 0x10000) {
      addUnit(value, out);
    } else {
      addUnit(0xD7C0 + (value >> 10), out);
      addUnit(0xDC00 + (value & 0x3FF), out);
    }
  } else if (value == c.value) {
    for (unsigned i = 0; i < c.size; ++i) out.add(c.at[i]);
  } else {
    encodeNarrow(value, out);
  }
  return out;
}

/// Writes one text's key.
class TextKey {
 public:
  TextKey(const KeyText& text, std::uint32_t mode, KeyWriter& out)
      : text_(text), mode_(mode), out_(out), walk_(text, has(CZELTA::SegmentReversed)) {}

  void write() {
    bool first = true;
    for (; !walk_.atEnd(); first = false) {
      const Character c = walk_.peek();
      if (numberBytes(mode_) != 0 && takeNumber(c)) continue;
      walk_.skip(c);
      if (has(CZELTA::SegmentAlphanumeric) && !isAlnum(c.value)) {
        drop(c.value, first);
      } else if (!has(CZELTA::SegmentNoSpace) || !isBlank(c.value)) {
        putCharacter(c);
      }
    }
    if (text_.wide && separated_ && has(CZELTA::SegmentAlphanumeric) &&
        !has(CZELTA::SegmentReversed) && !descending()) {
      out_.cut(2);
    }
    for (unsigned i = 0; i < unitSize(); ++i) putByte(0);
  }

 private:
  [[nodiscard]] bool has(std::uint32_t flag) const { return (mode_ & flag) != 0; }
  [[nodiscard]] bool descending() const { return has(CZELTA::SegmentDescending); }
  [[nodiscard]] unsigned unitSize() const { return text_.wide ? 2 : 1; }
  void putByte(unsigned char byte) {
    out_.put(descending() ? static_cast<unsigned char>(~byte) : byte);
  }
  void putCharacter(const Character& c) {
    const Encoded encoded = encode(c, mode_, text_.wide);
    for (unsigned i = 0; i < encoded.size; ++i) putByte(encoded.bytes[i]);
    met_ = true;
    separated_ = false;
  }
  void putSeparator() {
    if (text_.wide) putByte(0);
    putByte(' ');
    separated_ = true;
  }
  [[nodiscard]] bool endsWithSpace() const {
    return out_.endsWith(' ', 0) && (!text_.wide || out_.endsWith(0, 1));
  }
  void drop(char32_t c, bool first);
  bool takeNumber(const Character& c);
  bool takeForward(Character c);
  void takeBackward(Character c);
  void putNumber(std::uint64_t value);

  const KeyText& text_;
  std::uint32_t mode_;
  KeyWriter& out_;
  TextWalk walk_;
  bool met_ = false;        ///< something was kept
  bool separated_ = false;  ///< the last thing that this text wrote is a separator
};

/// A character that is neither letter nor digit: a separator may take its place. 8-bit text walked
/// forward has one for its very first character alone.
void TextKey::drop(char32_t c, bool first) {
  if (has(CZELTA::SegmentNoSpace) || isTraceless(c)) return;
  const bool plain = !text_.wide && !has(CZELTA::SegmentReversed);
  if (plain ? !first : !met_ || walk_.atEnd()) return;
  if (!descending() && endsWithSpace()) return;
  putSeparator();
}

bool TextKey::takeNumber(const Character& c) {
  if (has(CZELTA::SegmentReversed)) {
    if (!isDigit(c.value)) return false;
    takeBackward(c);
    return true;
  }
  return takeForward(c);
}

bool TextKey::takeForward(Character c) {
  const bool negative = c.value == U'-';
  if (negative) {
    TextWalk ahead = walk_;
    ahead.skip(c);
    if (ahead.atEnd() || !isDigit(ahead.peek().value)) return false;
    walk_ = ahead;
    c = walk_.peek();
  } else if (!isDigit(c.value)) {
    return false;
  }
  std::uint64_t value = 0;
  for (;;) {
    value = value * 10 + (c.value - U'0');
    walk_.skip(c);
    if (walk_.atEnd()) break;
    c = walk_.peek();
    if (!isDigit(c.value)) break;
  }
  putNumber(negative ? 0 - value : value);
  return true;
}

/// From the last digit to the first. The place value has 32 bits, and the sign is turned round: the
/// number is negated unless a minus sign stands before it.
void TextKey::takeBackward(Character c) {
  std::uint64_t value = 0;
  std::uint32_t place = 1;
  bool minus = false;
  for (;;) {
    value += std::uint64_t{c.value - U'0'} * place;
    place *= 10;
    walk_.skip(c);
    if (walk_.atEnd()) break;
    c = walk_.peek();
    if (isDigit(c.value)) continue;
    minus = c.value == U'-';
    if (minus) walk_.skip(c);
    break;
  }
  putNumber(minus ? value : 0 - value);
}

void TextKey::putNumber(std::uint64_t value) {
  const unsigned bytes = numberBytes(mode_);
  if (descending()) value = ~(value ^ (std::uint64_t{1} << (8 * bytes - 1)));
  out_.putNumber(value, bytes);
  met_ = true;
  separated_ = false;
}

/// An 8-bit text whose bytes stand in the key as they are, or complemented.
bool isPlain(const KeyText& text, std::uint32_t mode) {
  return !text.wide && (mode & ~std::uint32_t{CZELTA::SegmentDescending}) == 0;
}

void writePlain(const KeyText& text, bool descending, KeyWriter& out) {
  if (!descending) {
    out.putBytes(text.bytes, text.length);
    return out.put(0);
  }
  for (std::uint64_t i = 0; i < text.length; ++i) {
    out.put(static_cast<unsigned char>(~text.bytes[i]));
  }
  out.put(0xFF);
}

}  // namespace

std::uint64_t textKeySize(const KeyText& text, std::uint32_t mode) {
  if (isPlain(text, mode)) return text.length + 1;
  const unsigned unit = text.wide ? 2 : 1;
  const unsigned number = numberBytes(mode);
  std::uint64_t size = unit;  // the terminator
  bool dropping = false;
  bool digits = false;
  for (TextWalk walk(text, (mode & CZELTA::SegmentReversed) != 0); !walk.atEnd();) {
    const Character c = walk.peek();
    walk.skip(c);
    if (number != 0 && isDigit(c.value)) {
      if (!digits) size += number;
      digits = true;
      dropping = false;
      continue;
    }
    digits = false;
    if ((mode & CZELTA::SegmentAlphanumeric) != 0 && !isAlnum(c.value)) {
      if (!dropping && (mode & CZELTA::SegmentNoSpace) == 0) size += unit;
      dropping = true;
      continue;
    }
    dropping = false;
    if ((mode & CZELTA::SegmentNoSpace) != 0 && isBlank(c.value)) continue;
    size += encode(c, mode, text.wide).size;
  }
  return size;
}

void writeTextKey(const KeyText& text, std::uint32_t mode, KeyWriter& out) {
  if (isPlain(text, mode)) {
    return writePlain(text, (mode & CZELTA::SegmentDescending) != 0, out);
  }
  TextKey(text, mode, out).write();
}

}  // namespace zelta
