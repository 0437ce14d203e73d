#include "sim/control/command_options.h"

#include <algorithm>

namespace zem::sim {
namespace {

bool Contains(std::initializer_list<const char*> names, const std::string& word) {
  return std::find(names.begin(), names.end(), word) != names.end();
}

}  // namespace

CommandOptions::CommandOptions(const Arguments& arguments, std::initializer_list<const char*> with_value,
                               std::initializer_list<const char*> flags) {
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string& word = arguments[i];
    if (word.rfind("--", 0) != 0) {
      positional_.push_back(word);
    } else if (Contains(with_value, word) && i + 1 < arguments.size()) {
      values_[word] = arguments[++i];
    } else if (Contains(flags, word)) {
      values_[word] = "";
    } else {
      error_ = "unknown option " + word;
    }
  }
}

std::string CommandOptions::Rest(size_t first) const {
  std::string text;
  for (size_t i = first; i < positional_.size(); ++i) text += (i == first ? "" : " ") + positional_[i];
  return text;
}

std::optional<std::string> CommandOptions::Value(const char* name) const {
  const auto found = values_.find(name);
  if (found == values_.end()) return std::nullopt;
  return found->second;
}

}  // namespace zem::sim
