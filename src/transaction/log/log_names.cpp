#include "transaction/log/log_names.h"

#include <algorithm>
#include <string_view>

#include "platform/folder.h"

namespace zelta {

namespace {

constexpr int kDigits = 4;

/// Value of a hexadecimal digit; 16: it is none.
std::uint16_t digitOf(char16_t character) {
  if (character >= u'0' && character <= u'9') return static_cast<std::uint16_t>(character - u'0');
  if (character >= u'a' && character <= u'f')
    return static_cast<std::uint16_t>(character - u'a' + 10);
  if (character >= u'A' && character <= u'F')
    return static_cast<std::uint16_t>(character - u'A' + 10);
  return 16;
}

/// The number in a name like "x.01af.zll". Which database the file belongs to is not looked at: how
/// names compare is known to the file system alone.
bool numberOf(std::u16string_view name, std::uint16_t* number) {
  constexpr std::size_t kEnding = std::u16string_view(extension::kLog).size();
  if (name.size() <= kEnding + kDigits + 1) return false;
  name.remove_suffix(kEnding);
  const std::size_t dot = name.size() - kDigits - 1;
  if (name[dot] != u'.') return false;
  *number = 0;
  for (const char16_t character : name.substr(dot + 1)) {
    const std::uint16_t digit = digitOf(character);
    if (digit > 15) return false;
    *number = static_cast<std::uint16_t>(*number << 4 | digit);
  }
  return true;
}

/// How far a number lies behind another; numbers go round.
std::uint16_t distance(std::uint16_t first, std::uint16_t number) {
  return static_cast<std::uint16_t>(number - first);
}

/// All numbers of a range.
std::vector<std::uint16_t> allNumbers(std::uint16_t first, std::uint16_t last) {
  std::vector<std::uint16_t> numbers(std::size_t{distance(first, last)} + 1);
  for (std::uint16_t& number : numbers) number = first++;
  return numbers;
}

}  // namespace

std::u16string singleLogName(const MetaData& metaData) {
  return databasePath(metaData, metaData.baseName, extension::kLog);
}

std::u16string numberedLogName(const MetaData& metaData, std::uint16_t number) {
  std::u16string name = metaData.baseName;
  name += u'.';
  for (int shift = 12; shift >= 0; shift -= 4) name += u"0123456789abcdef"[(number >> shift) & 15];
  return databasePath(metaData, name, extension::kLog);
}

std::vector<std::uint16_t> numbersInUse(const MetaData& metaData, std::uint16_t first,
                                        std::uint16_t last) {
  constexpr std::uint16_t kFew = 16;  // are sooner tried than found among many other files
  const std::uint16_t span = distance(first, last);
  if (span < kFew) return allNumbers(first, last);
  std::vector<std::u16string> names;
  if (platform::listFolder(metaData.directoryPath.c_str(), extension::kLog, names) != 0) {
    return allNumbers(first, last);  // files can be opened in a folder that may not be read
  }
  std::vector<std::uint16_t> numbers;
  for (const std::u16string& name : names) {
    std::uint16_t number = 0;
    if (numberOf(name, &number) && distance(first, number) <= span) numbers.push_back(number);
  }
  std::sort(numbers.begin(), numbers.end(), [first](std::uint16_t a, std::uint16_t b) {
    return distance(first, a) < distance(first, b);
  });
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  return numbers;
}

}  // namespace zelta
