#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zem::sim {

/// The objects that a call concerns; null where it concerns none of that kind.
struct CallSubject {
  const char* function;
  const char* dvs = nullptr;
  const char* port = nullptr;
  const char* property = nullptr;
};

/// One line of the file of faults: `function [sw=ID] [port=KEY] [prop=NAME] [skip=N] [count=N] [ret=CODE]
/// [errno=N] [delay_ms=N] [hang]`; a value with blanks is put in double quotes.  Without `count` the rule is
/// permanent.
struct FaultRule {
  std::string function;
  std::optional<std::string> dvs;
  std::optional<std::string> port;
  std::optional<std::string> property;
  uint32_t skip = 0;
  std::optional<uint32_t> count;
  std::optional<uint32_t> ret;
  std::optional<int> error_number;
  uint32_t delay_ms = 0;
  bool hang = false;

  bool Matches(const CallSubject& call) const;
  std::string Line() const;
};

/// Returns nothing, with the reason in `error`, when the line cannot be parsed.
std::optional<FaultRule> ParseFaultRule(std::string_view line, std::string* error);

/// The rules of the tree, in order; lines that cannot be parsed are left out.
std::vector<FaultRule> ReadFaultRules();
/// Replaces all rules.  The caller holds the tree's lock.
void WriteFaultRules(const std::vector<FaultRule>& rules);

/// Returns the first rule that matches this call and whose skip is used up, and decrements its count.
std::optional<FaultRule> TakeFault(const CallSubject& call);

}  // namespace zem::sim
