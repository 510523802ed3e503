// The packed form: the number of files, for each its name's number (1 byte), its length (4 bytes)
// and its bytes, then the steering bytes.

#include "fuzz/archive.h"

#include <algorithm>
#include <cstring>

namespace zelta::fuzz {

std::optional<std::size_t> Archive::find(std::size_t name) const {
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (files[i].name == name) return i;
  }
  return std::nullopt;
}

Archive unpack(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHead = 5;
  Archive out;
  if (size == 0) return out;
  const std::uint8_t* const end = data + size;
  for (unsigned left = *data++; left != 0 && data < end; --left) {
    if (static_cast<std::size_t>(end - data) < kHead) return out;
    const std::size_t name = data[0] % kFileNameCount;
    std::uint32_t length = 0;
    std::memcpy(&length, data + 1, sizeof length);
    data += kHead;
    const std::size_t there = std::min<std::size_t>(length, static_cast<std::size_t>(end - data));
    if (!out.find(name)) out.files.push_back({name, std::string(data, data + there)});
    data += there;
  }
  out.steering.assign(data, end);
  return out;
}

std::string pack(const Archive& archive) {
  std::string out(1, static_cast<char>(archive.files.size()));
  for (const ArchivedFile& file : archive.files) {
    const auto length = static_cast<std::uint32_t>(file.bytes.size());
    out += static_cast<char>(file.name);
    out.append(reinterpret_cast<const char*>(&length), sizeof length);
    out += file.bytes;
  }
  return out + archive.steering;
}

}  // namespace zelta::fuzz
