#include "sim/switch/tree/fault_rules.h"

#include <sys/stat.h>

#include <charconv>

#include "sim/switch/tree/state_tree.h"

namespace zem::sim {
namespace {

// Splits a line at blanks; quotes keep blanks in a word and are removed.
std::vector<std::string> Words(std::string_view line) {
  std::vector<std::string> words;
  std::string word;
  bool quoted = false;
  bool any = false;
  for (const char c : line) {
    if (c == '"') {
      quoted = !quoted;
      any = true;
    } else if (c == ' ' && !quoted) {
      if (any) words.push_back(std::move(word));
      word.clear();
      any = false;
    } else {
      word += c;
      any = true;
    }
  }
  if (any) words.push_back(std::move(word));
  return words;
}

std::optional<uint32_t> Number(std::string_view text) {
  int base = 10;
  if (text.starts_with("0x")) {
    base = 16;
    text.remove_prefix(2);
  }
  uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::string Quoted(const std::string& value) {
  return value.find(' ') == std::string::npos && !value.empty() ? value : '"' + value + '"';
}

bool Same(const std::optional<std::string>& wanted, const char* is) {
  return !wanted || (is != nullptr && *wanted == is);
}

}  // namespace

bool FaultRule::Matches(const CallSubject& call) const {
  return function == call.function && Same(dvs, call.dvs) && Same(port, call.port) &&
         Same(property, call.property);
}

std::string FaultRule::Line() const {
  std::string line = function;
  if (dvs) line += " sw=" + Quoted(*dvs);
  if (port) line += " port=" + Quoted(*port);
  if (property) line += " prop=" + Quoted(*property);
  if (skip != 0) line += " skip=" + std::to_string(skip);
  if (count) line += " count=" + std::to_string(*count);
  if (ret) line += " ret=" + std::to_string(*ret);
  if (error_number) line += " errno=" + std::to_string(*error_number);
  if (delay_ms != 0) line += " delay_ms=" + std::to_string(delay_ms);
  if (hang) line += " hang";
  return line;
}

std::optional<FaultRule> ParseFaultRule(std::string_view line, std::string* error) {
  const std::vector<std::string> words = Words(line);
  if (words.empty()) {
    *error = "no function";
    return std::nullopt;
  }
  FaultRule rule;
  rule.function = words[0];
  for (size_t i = 1; i < words.size(); ++i) {
    const size_t equal = words[i].find('=');
    const std::string name = words[i].substr(0, equal);
    const std::string value = equal == std::string::npos ? std::string() : words[i].substr(equal + 1);
    const auto number = Number(value);
    if (name == "hang" && equal == std::string::npos) {
      rule.hang = true;
    } else if (name == "sw") {
      rule.dvs = value;
    } else if (name == "port") {
      rule.port = value;
    } else if (name == "prop") {
      rule.property = value;
    } else if (name == "skip" && number) {
      rule.skip = *number;
    } else if (name == "count" && number) {
      rule.count = *number;
    } else if (name == "ret" && number) {
      rule.ret = *number;
    } else if (name == "errno" && number) {
      rule.error_number = static_cast<int>(*number);
    } else if (name == "delay_ms" && number) {
      rule.delay_ms = *number;
    } else {
      *error = "\"" + words[i] + "\" does not read";
      return std::nullopt;
    }
  }
  return rule;
}

std::vector<FaultRule> ReadFaultRules() {
  std::vector<FaultRule> rules;
  const std::string text = tree::ReadFile(tree::FaultsFile()).value_or("");
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    std::string error;
    if (auto rule = ParseFaultRule(std::string_view(text).substr(at, end - at), &error)) {
      rules.push_back(std::move(*rule));
    }
    at = end + 1;
  }
  return rules;
}

void WriteFaultRules(const std::vector<FaultRule>& rules) {
  if (rules.empty()) {
    static_cast<void>(tree::RemoveFile(tree::FaultsFile()));
    return;
  }
  std::string text;
  for (const FaultRule& rule : rules) text += rule.Line() + "\n";
  static_cast<void>(tree::WriteFile(tree::FaultsFile(), text));
}

std::optional<FaultRule> TakeFault(const CallSubject& call) {
  if (!tree::Exists(tree::FaultsFile())) return std::nullopt;
  const tree::TreeLock lock;
  std::vector<FaultRule> rules = ReadFaultRules();
  for (auto rule = rules.begin(); rule != rules.end(); ++rule) {
    if (!rule->Matches(call)) continue;
    if (rule->skip != 0) {
      --rule->skip;
      WriteFaultRules(rules);
      continue;
    }
    const FaultRule taken = *rule;
    if (rule->count) {
      if (*rule->count <= 1) {
        rules.erase(rule);
      } else {
        --*rule->count;
      }
      WriteFaultRules(rules);
    }
    return taken;
  }
  return std::nullopt;
}

}  // namespace zem::sim
