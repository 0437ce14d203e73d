#include "platform/timeline/key_list.h"

namespace zem::timeline {
namespace {
constexpr uint16_t kMostKeys = 128;
constexpr size_t kLongestKey = 128;
}  // namespace

std::string_view KeyList::Add(std::string_view key) {
  key = key.substr(0, kLongestKey);
  if (key.empty() || count_ >= kMostKeys || Has(key)) return {};
  ++count_;
  const char length = static_cast<char>(key.size());
  // Once one did not fit, all others follow it, so that they keep their order.
  if (more_.empty() && first_.size() - used_ > key.size()) {
    first_[used_] = length;
    key.copy(&first_[used_ + 1], key.size());
    used_ = static_cast<uint16_t>(used_ + 1 + key.size());
  } else {
    more_.push_back(length);
    more_.append(key);
  }
  return key;
}

bool KeyList::Has(std::string_view key) const {
  bool found = false;
  ForEach([&](std::string_view each) {
    found = each == key;
    return !found;
  });
  return found;
}

}  // namespace zem::timeline
