#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zem::sim {

/// What a call is about; null where it is about no such thing.
struct CallSubject {
  const char* function;
  const char* dvs = nullptr;
  const char* port = nullptr;
  const char* property = nullptr;
};

/// One line of the file of faults: `function [sw=ID] [port=KEY] [prop=NAME] [skip=N] [count=N] [ret=CODE]
/// [errno=N] [delay_ms=N] [hang]`; a value with blanks stands in double quotes.  Without `count` it is for
/// good.
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

/// Nothing, with the reason in `error`, when the line does not read.
std::optional<FaultRule> ParseFaultRule(std::string_view line, std::string* error);

/// The rules of the tree, in order; lines that do not read are left out.
std::vector<FaultRule> ReadFaultRules();
/// All of them anew.  The caller holds the tree's lock.
void WriteFaultRules(const std::vector<FaultRule>& rules);

/// The first rule for this call whose skip has been used up, with its count taken down.
std::optional<FaultRule> TakeFault(const CallSubject& call);

}  // namespace zem::sim
