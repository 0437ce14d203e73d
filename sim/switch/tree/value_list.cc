#include "sim/switch/tree/value_list.h"

#include <algorithm>
#include <cstring>

namespace zem::sim {
namespace {

constexpr std::string_view kMagic = "DVSD";
constexpr uint32_t kVersion = 1;
constexpr size_t kHeader = 16;
constexpr size_t kItemHeader = 10;
constexpr uint32_t kMostItems = 4096;
constexpr size_t kLongestName = 255;

template <class Number>
void Put(std::string* out, Number number) {
  out->append(reinterpret_cast<const char*>(&number), sizeof(number));
}

template <class Number>
Number Get(std::string_view bytes, size_t at) {
  Number number;
  std::memcpy(&number, bytes.data() + at, sizeof(number));
  return number;
}

}  // namespace

void ValueList::Update(std::string_view name, std::string_view value, uint32_t flags) {
  for (Item& item : items_) {
    if (item.name != name) continue;
    item.value = value;
    item.flags = flags;
    return;
  }
  items_.push_back({std::string(name), std::string(value), flags});
}

bool ValueList::Remove(std::string_view name) {
  return std::erase_if(items_, [name](const Item& item) { return item.name == name; }) != 0;
}

std::string ValueList::Serialize() const {
  std::string out(kMagic);
  Put(&out, kVersion);
  Put(&out, uint32_t{0});
  Put(&out, static_cast<uint32_t>(items_.size()));
  for (const Item& item : items_) {
    Put(&out, item.flags);
    Put(&out, static_cast<uint16_t>(item.name.size()));
    Put(&out, static_cast<uint32_t>(item.value.size()));
    out += item.name;
    out += item.value;
  }
  const auto length = static_cast<uint32_t>(out.size());
  std::memcpy(out.data() + kMagic.size() + sizeof(kVersion), &length, sizeof(length));
  return out;
}

std::optional<ValueList> ValueList::Deserialize(std::string_view bytes) {
  if (bytes.size() < kHeader || !bytes.starts_with(kMagic) || Get<uint32_t>(bytes, 4) != kVersion) {
    return std::nullopt;
  }
  const auto length = Get<uint32_t>(bytes, 8);
  const auto count = Get<uint32_t>(bytes, 12);
  if (length < kHeader || length > bytes.size() || count > kMostItems) return std::nullopt;
  ValueList list;
  size_t at = kHeader;
  for (uint32_t i = 0; i < count; ++i) {
    if (length - at < kItemHeader) return std::nullopt;
    const auto flags = Get<uint32_t>(bytes, at);
    const size_t name = Get<uint16_t>(bytes, at + 4);
    const size_t value = Get<uint32_t>(bytes, at + 6);
    at += kItemHeader;
    if (name == 0 || name > kLongestName || name + value > length - at) return std::nullopt;
    list.items_.push_back(
        {std::string(bytes.substr(at, name)), std::string(bytes.substr(at + name, value)), flags});
    at += name + value;
  }
  if (at != length) return std::nullopt;
  return list;
}

}  // namespace zem::sim
