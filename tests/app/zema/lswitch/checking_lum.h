#pragma once

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>

#include "app/zema/proxy/lum_commands.h"

namespace zem::zema {

/// A host that carries out its commands, and ends the process when a command differs in structure from the
/// one that was meant: a single separator inside a value shifts everything after it.
class CheckingLum : public LumCommands {
 public:
  int InvokeCommand(const std::string& command, const std::string& expected, std::string* out) override {
    constexpr std::string_view kCreate = "createOpaqueNetwork(";
    constexpr std::string_view kDelete = "deleteOpaqueNetwork(";
    const std::string_view text = command;
    if (text.starts_with(kCreate)) Check(text.substr(kCreate.size()), 4);
    if (text.starts_with(kDelete)) Check(text.substr(kDelete.size()), 0);
    *out = "ok";
    return expected.empty() || expected == *out ? kSucceeded : kFailed;
  }
  int InvokeRPC(LumOperation, std::string_view, std::string* out) override {
    out->clear();
    return kRpcSucceeded;
  }

 private:
  // Each entry begins with its uuid, which distinguishes it from a comma in a name, and has `bars`
  // separators.
  static void Check(std::string_view entries, std::ptrdiff_t bars) {
    constexpr std::string_view kBegin = "uuid=";
    constexpr std::string_view kNext = ",uuid=";
    if (!entries.starts_with(kBegin) || !entries.ends_with(')')) std::abort();
    while (true) {
      const size_t end = entries.find(kNext);
      const std::string_view entry = entries.substr(0, end);
      if (std::count(entry.begin(), entry.end(), '|') != bars) std::abort();
      if (end == std::string_view::npos) return;
      entries.remove_prefix(end + kNext.size());
    }
  }
};

}  // namespace zem::zema
