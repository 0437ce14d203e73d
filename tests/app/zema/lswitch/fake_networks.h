#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "app/zema/proxy/lum_commands.h"
#include "proto/switching/logical_switch.pb.h"

namespace zem::zema {

/// The opaque networks of a host behind the calls that change them: keeps them as a host would, and refuses
/// input that it cannot parse.
///
/// Threads: all operations from any thread.
class FakeNetworks : public LumCommands {
 public:
  int InvokeCommand(const std::string& command, const std::string&, std::string* out) override {
    const auto fails = Enter(command, out);
    if (on_call) on_call(command);
    const std::lock_guard lock(mutex_);
    if (fails) return kFailed;
    *out = "ok";
    if (Carry(command, "createOpaqueNetwork(",
              [this](const std::map<std::string, std::string>& fields) {
                networks_[fields.at("uuid")] = fields.at("name") + ":" + fields.at("revision");
              }) ||
        Carry(command, "deleteOpaqueNetwork(", [this](const std::map<std::string, std::string>& fields) {
          networks_.erase(fields.at("uuid"));
        })) {
      return kSucceeded;
    }
    const auto answer = answers.find(command);
    *out = answer == answers.end() ? "unknown command" : answer->second;
    return answer == answers.end() ? kFailed : kSucceeded;
  }

  int InvokeRPC(LumOperation operation, std::string_view data, std::string* out) override {
    const std::string text = "op " + std::to_string(static_cast<uint32_t>(operation));
    if (Enter(text, out)) return 7;
    const std::lock_guard lock(mutex_);
    orlane::zem::switching::LogicalSwitchBulkMsg bulk;
    if (operation != LumOperation::kApplyLogicalSwitches) return kRpcSucceeded;
    if (!bulk.ParseFromArray(data.data(), static_cast<int>(data.size()))) {
      *out = "no bulk message";
      return 7;
    }
    if (bulk.continuation_flag() == 0) networks_.clear();
    size_t switches = 0;
    for (const auto& zone : bulk.logical_switches_of_tz()) {
      for (const auto& info : zone.logical_switch_info()) {
        networks_[info.logical_switch_id()] = info.name() + ":" + std::to_string(info.revision());
        ++switches;
      }
    }
    calls_.back() += " flag " + std::to_string(bulk.continuation_flag()) + " zones " +
                     std::to_string(bulk.logical_switches_of_tz_size()) + " switches " +
                     std::to_string(switches);
    return kRpcSucceeded;
  }

  /// After `skip` calls that contain `part`, the next `count` such calls fail with `error`.
  void Fail(std::string part, int skip, int count, std::string error) {
    const std::lock_guard lock(mutex_);
    faults_.push_back({std::move(part), skip, count, std::move(error)});
  }
  std::vector<std::string> TakeCalls() {
    const std::lock_guard lock(mutex_);
    return std::exchange(calls_, {});
  }
  /// "name:revision" by uuid.
  std::map<std::string, std::string> networks() {
    const std::lock_guard lock(mutex_);
    return networks_;
  }

  /// Replies to other commands.
  std::map<std::string, std::string> answers;
  /// Called inside a text command, before the command is carried out.
  std::function<void(const std::string&)> on_call;

 private:
  struct Fault {
    std::string part;
    int skip;
    int count;
    std::string error;
  };

  bool Enter(const std::string& call, std::string* out) {
    const std::lock_guard lock(mutex_);
    calls_.push_back(call);
    for (Fault& fault : faults_) {
      if (call.find(fault.part) == std::string::npos) continue;
      if (fault.skip-- > 0 || fault.count-- <= 0) continue;
      *out = fault.error;
      return true;
    }
    return false;
  }

  template <class Do>
  static bool Carry(const std::string& command, const std::string& name, Do carry_out) {
    if (command.rfind(name, 0) != 0 || command.back() != ')') return false;
    for (const std::string& entry :
         Split(command.substr(name.size(), command.size() - name.size() - 1), ',')) {
      std::map<std::string, std::string> fields;
      for (const std::string& field : Split(entry, '|')) {
        const size_t equals = field.find('=');
        fields[field.substr(0, equals)] = field.substr(equals + 1);
      }
      carry_out(fields);
    }
    return true;
  }
  static std::vector<std::string> Split(const std::string& text, char sign) {
    std::vector<std::string> parts(1);
    for (const char c : text) {
      if (c == sign) {
        parts.emplace_back();
      } else {
        parts.back() += c;
      }
    }
    return parts;
  }

  std::mutex mutex_;  // guards all below
  std::vector<std::string> calls_;
  std::vector<Fault> faults_;
  std::map<std::string, std::string> networks_;
};

}  // namespace zem::zema
