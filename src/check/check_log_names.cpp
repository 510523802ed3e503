// Names of log files, and which of them there are.

#include "check/check_log_names.h"

#include <algorithm>

#include "check/check_file.h"
#include "platform/folder.h"

namespace zelta::check {

namespace {

/// The number in a name that ends like "x.01af.zll"; digits in either case, as a file system may
/// not tell them apart.
bool numberIn(const std::u16string& name, std::uint16_t* number) {
  constexpr std::size_t kTail = 9;
  if (name.size() <= kTail || name[name.size() - kTail] != u'.') return false;
  std::uint32_t value = 0;
  for (const char16_t character : name.substr(name.size() - kTail + 1, 4)) {
    const char16_t low = static_cast<char16_t>(character | 0x20);
    const bool isDigit = character >= u'0' && character <= u'9';
    if (!isDigit && (low < u'a' || low > u'f')) return false;
    value = value << 4 | static_cast<std::uint32_t>(isDigit ? character - u'0' : low - u'a' + 10);
  }
  *number = static_cast<std::uint16_t>(value);
  return true;
}

std::u16string fourHexDigits(std::uint16_t number) {
  constexpr char16_t kDigits[] = u"0123456789abcdef";
  std::u16string out;
  for (int shift = 12; shift >= 0; shift -= 4) out += kDigits[(number >> shift) & 15];
  return out;
}

}  // namespace

std::vector<std::uint16_t> logNumbers(const std::u16string& folder, const ControlFacts& facts) {
  constexpr std::uint16_t kFew = 16;
  const auto behindFirst = [&](std::uint16_t number) {
    return static_cast<std::uint16_t>(number - facts.firstLog);
  };
  const std::uint16_t span = behindFirst(facts.lastLog);
  std::vector<std::u16string> names;
  std::vector<std::uint16_t> numbers;
  if (span < kFew || platform::listFolder(folder.c_str(), u".zll", names) != 0) {
    for (std::uint32_t i = 0; i <= span; ++i) {
      numbers.push_back(static_cast<std::uint16_t>(facts.firstLog + i));
    }
    return numbers;
  }
  for (const std::u16string& name : names) {
    std::uint16_t number = 0;
    if (numberIn(name, &number) && behindFirst(number) <= span) numbers.push_back(number);
  }
  std::sort(numbers.begin(), numbers.end(), [&](std::uint16_t one, std::uint16_t two) {
    return behindFirst(one) < behindFirst(two);
  });
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  return numbers;
}

std::u16string logName(const std::u16string& baseName) { return baseName + u".zll"; }

std::u16string logName(const std::u16string& baseName, std::uint16_t number) {
  return baseName + u"." + fourHexDigits(number) + u".zll";
}

}  // namespace zelta::check
