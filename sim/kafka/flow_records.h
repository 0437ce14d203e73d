#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace zem::sim {

/// What the flow records of a topic say about the guests, all messages together; and what is wrong with them.
struct FlowRecords {
  struct Guest {
    std::vector<uint32_t> vm_events;               // types, in the order of the messages
    std::vector<std::string> services;             // "start 10.0.0.1:443 KEY"
    std::vector<std::string> sessions;             // "logon KEY"
    std::map<std::string, std::string> processes;  // key to name
    std::map<std::string, std::string> users;      // key to name
  };
  uint64_t messages = 0;
  uint64_t bytes = 0;
  uint64_t empty = 0;  // messages that name no guest
  std::map<std::string, Guest> guests;
  std::set<std::string> sites;  // "" for a message without one
  std::vector<std::string> violations;
};

/// Reads each message of a topic.  A consumer must be able to take each one; and what an event refers to has
/// to be told in some message.
FlowRecords JudgeFlowRecords(const std::vector<std::string>& messages);

}  // namespace zem::sim
