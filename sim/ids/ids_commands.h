#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace zem::sim {

class CommandTable;
class DetectionProcess;
class IdsLedger;
class IdsServices;
class LogCollector;

/// What the commands act on; all of it outlives the table.
struct IdsPeers {
  DetectionProcess& detection;
  LogCollector& logger;
  IdsServices& services;
  IdsLedger& ledger;
  /// The messages of a topic that the brokers hold; throws std::runtime_error.
  std::function<std::vector<std::string>(const std::string& topic)> read_topic;
};

/// The commands "alert", "burst", "snip", "replay", "garbage", "state", "received", "kafka" and "logger/...".
void RegisterIdsCommands(CommandTable& table, IdsPeers peers);
/// The peers' part of the node's picture.
std::vector<std::string> DrawIds(const IdsPeers& peers);

}  // namespace zem::sim
