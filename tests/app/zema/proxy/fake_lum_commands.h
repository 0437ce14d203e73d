#pragma once

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "app/zema/proxy/lum_commands.h"

namespace zem::zema {

/// Records the commands and gives scripted replies; the last reply of a command is repeated.  A reply
/// scripted for "name(" applies to all arguments.  A command without a script is answered "ok".  Compares
/// with the expected reply as the real class does.
class FakeLumCommands : public LumCommands {
 public:
  void Script(const std::string& command, std::deque<std::string> replies) {
    replies_[command] = std::move(replies);
  }

  int InvokeCommand(const std::string& command, const std::string& expected, std::string* out) override {
    commands.push_back(command);
    if (while_asked) while_asked();
    *out = "ok";
    auto found = replies_.find(command);
    if (found == replies_.end()) found = replies_.find(command.substr(0, command.find('(') + 1));
    if (found != replies_.end()) {
      *out = found->second.front();
      if (found->second.size() > 1) found->second.pop_front();
    }
    return (expected.empty() && !IsUnanswered(*out)) || *out == expected ? kSucceeded : kFailed;
  }

  int InvokeRPC(LumOperation operation, std::string_view data, std::string* out) override {
    commands.push_back(std::to_string(static_cast<uint32_t>(operation)) + ":" + std::string(data));
    *out = rpc_reply;
    return rpc_status;
  }

  std::vector<std::string> commands;
  /// Called in the middle of each command.
  std::function<void()> while_asked;
  int rpc_status = kRpcSucceeded;
  std::string rpc_reply;

 private:
  std::map<std::string, std::deque<std::string>> replies_;
};

}  // namespace zem::zema
