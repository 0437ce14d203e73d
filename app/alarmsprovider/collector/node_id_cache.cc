#include "app/alarmsprovider/collector/node_id_cache.h"

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "framework/log/log.h"
#include "mpaclient/proxy/tn_proxy_client_common.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "alarmsprovider"};

// Throws unless `text` is a uuid.
std::string Checked(const std::string& text) {
  if (!ParseUuid(text)) throw std::runtime_error("Not a uuid: \"" + text + "\"");
  return text;
}

std::string FirstLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  if (!std::getline(file, line)) throw std::runtime_error("The file cannot be read or is empty.");
  while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
  return line;
}

std::string UuidOfHostConfig(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("Cannot open " + path);
  boost::property_tree::ptree tree;
  boost::property_tree::read_xml(file, tree, boost::property_tree::xml_parser::trim_whitespace);
  const std::string uuid = tree.get<std::string>("config.uuid");
  if (uuid.empty()) throw std::runtime_error("Empty uuid in config.");
  return Checked(uuid);
}

std::string UuidOfProxyConfig(const std::string& path) {
  boost::property_tree::ptree tree;
  boost::property_tree::read_json(path, tree);
  return Checked(tree.get<std::string>("uuid"));
}

}  // namespace

NodeIdCache::NodeIdCache(NodeIdFiles files) : files_(std::move(files)) {}

std::string NodeIdCache::GetNodeUuid(bool withNodeLabel) {
  return IsManagerNode() ? ManagerUuid() : TransportNodeUuid(withNodeLabel ? "Node-uuid" : "Endpoint-id");
}

std::string NodeIdCache::GetEndpointId() {
  if (!IsManagerNode()) return GetNodeUuid(false);
  std::string id;
  {
    const std::lock_guard lock(mutex_);
    id = endpoint_id_;
  }
  if (id.empty()) {
    try {
      id = UuidOfProxyConfig(files_.proxy);
    } catch (const std::exception& error) {
      ZLOG_INFO("Could not read aph uuid. %s", error.what());
      return {};
    }
    const std::lock_guard lock(mutex_);
    endpoint_id_ = id;
  }
  ZLOG_INFO("Endpoint-id: %s", id.c_str());
  return id;
}

bool NodeIdCache::IsManagerNode() const {
  try {
    std::ifstream file(files_.issue);
    for (std::string line; std::getline(file, line);) {
      if (line.find("node-type") == std::string::npos) continue;
      if (line.find("zem-manager") != std::string::npos || line.find("global-manager") != std::string::npos) {
        ZLOG_DEBUG("Running on manager node");
        return true;
      }
      ZLOG_DEBUG("Running on non-mananger node");
    }
  } catch (const std::exception& error) {
    ZLOG_WARN("Error checking node type in %s. %s", files_.issue.c_str(), error.what());
  }
  return false;
}

std::string NodeIdCache::ManagerUuid() {
  {
    const std::lock_guard lock(mutex_);
    if (!node_uuid_.empty()) {
      ZLOG_DEBUG("MP gets Node-uuid: %s", node_uuid_.c_str());
      return node_uuid_;
    }
  }
  try {
    const std::string uuid = Checked(FirstLine(files_.serial_number));
    const std::lock_guard lock(mutex_);
    node_uuid_ = uuid;
    ZLOG_INFO("MP updates Node-uuid: %s", uuid.c_str());
    return uuid;
  } catch (const std::exception& error) {
    ZLOG_INFO("Could not read node uuid from %s. %s", files_.serial_number.c_str(), error.what());
    return {};
  }
}

std::string NodeIdCache::TransportNodeUuid(const char* label) {
  std::string before;
  {
    // The proxy is asked under the mutex, so that no other caller puts back what it has read before a change.
    const std::lock_guard lock(mutex_);
    std::string uuid;
    if (const auto proxy = TnProxyClientCommon::getInstance()) {
      uuid = proxy->getTnUuidStr();
    } else {
      ZLOG_INFO("tnProxyClient is invalid");
    }
    if (!uuid.empty()) {
      if (uuid != node_uuid_) {
        ZLOG_INFO("%s changes from %s to %s", label, node_uuid_.c_str(), uuid.c_str());
        node_uuid_ = std::move(uuid);
      }
      ZLOG_DEBUG("Got %s: %s", label, node_uuid_.c_str());
      return node_uuid_;
    }
    before = node_uuid_;
  }
  std::string uuid;
  try {
    uuid = UuidOfHostConfig(files_.host);
  } catch (const std::exception& error) {
    ZLOG_INFO("Could not read node uuid. %s", error.what());
  }
  const std::lock_guard lock(mutex_);
  // What the proxy has said while the file was read is newer.
  if (!uuid.empty() && node_uuid_ == before) node_uuid_ = std::move(uuid);
  ZLOG_DEBUG("Got %s: %s", label, node_uuid_.c_str());
  return node_uuid_;
}

}  // namespace zem::Tarvik
