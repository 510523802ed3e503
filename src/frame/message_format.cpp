#include "frame/message_format.h"

namespace zelta {

void MessageWriter::putDecimal(std::int64_t value) {
  char digits[20];
  int count = 0;
  std::uint64_t rest =
      value < 0 ? ~static_cast<std::uint64_t>(value) + 1 : static_cast<std::uint64_t>(value);
  do {
    digits[count++] = static_cast<char>('0' + rest % 10);
    rest /= 10;
  } while (rest != 0);
  if (value < 0) put(u'-');
  while (count > 0) put(static_cast<char16_t>(digits[--count]));
}

void MessageWriter::putHex(std::uint64_t value, bool upper) {
  const char* alphabet = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  char digits[16];
  int count = 0;
  do {
    digits[count++] = alphabet[value & 15];
    value >>= 4;
  } while (value != 0);
  while (count > 0) put(static_cast<char16_t>(digits[--count]));
}

void MessageWriter::printList(const char* format, const Argument* arguments) {
  for (const char* p = format; *p != 0; ++p) {
    if (*p != '%') {
      put(static_cast<char16_t>(*p));
      continue;
    }
    ++p;
    const bool wide = *p == 'l';
    while (*p == 'l') ++p;
    const Argument& argument = *arguments++;
    switch (*p) {
      case 's':
        putText(argument.text);
        break;
      case 'd':
        putDecimal(argument.number);
        break;
      case 'x':
      case 'X':
        putHex(wide ? static_cast<std::uint64_t>(argument.number)
                    : static_cast<std::uint32_t>(argument.number),
               *p == 'X');
        break;
      default:
        return;
    }
  }
}

}  // namespace zelta
