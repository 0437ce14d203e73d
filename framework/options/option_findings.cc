#include "framework/options/option_findings.h"

#include <algorithm>
#include <vector>

#include "platform/core/nearest_name.h"

namespace zem::Tarvik {
namespace {

// Nobody reads more, and each unknown name is compared with the whole table.
constexpr size_t kMostFaults = 200;

}  // namespace

const OptionRow* OptionFindings::Find(std::string_view key) const {
  const auto row =
      std::find_if(file_.rows.begin(), file_.rows.end(), [key](const OptionRow& r) { return r.key == key; });
  return row == file_.rows.end() ? nullptr : &*row;
}

bool OptionFindings::IsSection(const std::string& key) const {
  return std::any_of(file_.rows.begin(), file_.rows.end(),
                     [&key](const OptionRow& row) { return row.key.starts_with(key + "."); });
}

OptionFindings::Kind OptionFindings::KindOf(const std::string& above, const std::string& name, int line) {
  const std::string key = above + name;
  // The daemon takes a dot for a step into a section, so it finds no name that has one.
  const bool can_be_found = name.find('.') == std::string::npos;
  if (can_be_found && IsSection(key)) {
    if (sections_.insert(key).second) return Kind::kSection;
    if (HasRoom(line))
      check_.faults.push_back({line, key, "is a section that was there before; only the first one counts"});
    return Kind::kKnown;
  }
  const OptionRow* const row = can_be_found ? Find(key) : nullptr;
  if (row == nullptr) {
    TellUnknown(key, line);
    return Kind::kKnown;
  }
  return row->type == OptionType::kList ? Kind::kList : Kind::kValue;
}

// The first fault for which there is none says so.
bool OptionFindings::HasRoom(int line) {
  if (check_.faults.size() < kMostFaults) return true;
  if (check_.faults.size() == kMostFaults)
    check_.faults.push_back({line, {}, "has more such faults, which are not told"});
  return false;
}

void OptionFindings::TellUnknown(const std::string& key, int line) {
  if (!HasRoom(line)) return;
  std::vector<std::string_view> names;
  for (const OptionRow& known : file_.rows) names.push_back(known.key);
  const std::string_view nearest = NearestName(key, names);
  check_.faults.push_back(
      {line, key,
       "is no option, and is ignored" +
           (nearest.empty() ? std::string() : "; did you mean " + std::string(nearest) + "?")});
}

void OptionFindings::Value(const std::string& key, const std::string& text, int line) {
  const OptionRow* const row = Find(key);
  const bool first = given_.try_emplace(row->key, Found{text, line}).second;
  if (!first && HasRoom(line))
    check_.faults.push_back({line, key, "stands here again; the first one counts"});
}

bool OptionFindings::Counts(const OptionRow& row) const {
  if (row.with.empty()) return true;
  const OptionRow* const flag = Find(row.with);
  return flag != nullptr && FlagValue(*flag, Given(*flag));
}

void OptionFindings::Refuse(int line, std::string_view key, const std::string& what) {
  check_.faults.push_back({line, std::string(key), what});
  check_.unusable = true;
}

void OptionFindings::Finish() {
  const std::string so = ", so " + std::string(file_.refusal);
  for (const OptionRow& row : file_.rows) {
    if (!Counts(row)) continue;
    const auto found = given_.find(row.key);
    if (found == given_.end()) {
      if (row.needed) Refuse(0, row.key, "is missing" + so);
      continue;
    }
    const auto& [text, line] = found->second;
    const std::string fault = ValueFault(row, text);
    if (fault.empty()) continue;
    check_.faults.push_back({line, std::string(row.key), fault});
    const bool in_place = row.type != OptionType::kNumber || IsNumber(text);
    if (row.out_of_range == OutOfRange::kRefused && in_place) check_.unusable = true;
  }
  for (const OptionOrder& order : file_.orders) {
    const OptionRow& smaller = order.smaller.row();
    const OptionRow& greater = order.greater.row();
    const int64_t low = NumberValue(smaller, Given(smaller));
    const int64_t high = NumberValue(greater, Given(greater));
    if (low <= high) continue;
    const auto found = given_.find(smaller.key);
    Refuse(found == given_.end() ? 0 : found->second.line, smaller.key,
           "(" + std::to_string(low) + ") is greater than " + std::string(greater.key) + " (" +
               std::to_string(high) + ")" + so);
  }
  const bool one = std::any_of(file_.one_of.begin(), file_.one_of.end(), [this](std::string_view key) {
    const OptionRow* const row = Find(key);
    return row != nullptr && FlagValue(*row, Given(*row));
  });
  if (!one && !file_.one_of.empty()) {
    std::string names;
    for (const std::string_view key : file_.one_of) names += (names.empty() ? "" : ", ") + std::string(key);
    Refuse(0, {}, "sets none of " + names + so);
  }
  std::stable_sort(check_.faults.begin(), check_.faults.end(),
                   [](const OptionFault& a, const OptionFault& b) { return a.line < b.line; });
}

std::optional<std::string> OptionFindings::Given(const OptionRow& row) const {
  const auto found = given_.find(row.key);
  return found == given_.end() ? std::nullopt : std::optional(found->second.text);
}

}  // namespace zem::Tarvik
