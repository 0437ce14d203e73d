#include "app/controller/controller_list_handler_task.h"

#include <algorithm>
#include <boost/property_tree/ptree.hpp>
#include <optional>

#include "app/controller/controller_context.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"
#include "platform/core/thread_name.h"
#include "platform/core/uuid.h"
#include "proto/switching/switching.pb.h"

namespace zem::controller {
namespace {

namespace config = orlane::zem::config;
namespace pt = boost::property_tree;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kLoadThread = "zema:loadctl";
constexpr const char* kUpdateThread = "zema:updatectl";
constexpr const char* kConnectionList = "config.connectionList";
constexpr const char* kConnection = "connection";
constexpr const char* kTransportNode = "config.transportNode";
constexpr const char* kUuid = "UUID";

// The XML writer escapes the characters that XML reserves; control characters cannot be escaped.
bool IsPlain(const std::string& text) {
  return std::none_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

struct Address {
  std::string address;
  std::string host_name;
};
Address AddressOf(bool single, const std::string& address, const config::AddressGroupMsg& group) {
  Address result;
  result.host_name = group.host_name();
  if (single) {
    result.address = address;
  } else if (group.address_size() > 0) {
    result.address = group.address(0);
  }
  return result;
}

}  // namespace

ControllerListHandlerTask::ControllerListHandlerTask(std::shared_ptr<ControllerContext> context,
                                                     std::string correlation_id, std::string reply_to,
                                                     config::MpLcpMsg message)
    : MpaMessageTask(nullptr, std::move(correlation_id), std::move(reply_to), std::move(message)),
      context_(std::move(context)),
      tree_(std::make_unique<pt::ptree>()) {}

ControllerListHandlerTask::~ControllerListHandlerTask() = default;

void ControllerListHandlerTask::HandleControllerInfo() {
  ZLOG_INFO("[%s] Started handling controller list message from mp", __func__);
  if (!message_.has_update()) {
    ZLOG_ERROR("44082", "[%s] Received empty controller info message", __func__);
    return;
  }
  SetThreadName(kLoadThread);
  ZLOG_INFO("[%s] Locking controller-info file", __func__);
  bool missing = false;
  // Held until the end, so that only the list is added to what was read.
  const UniqueFd lock = context_->file.Lock(&missing);
  if (!lock && !missing) return;
  if (!LoadControllerInfoFile()) return;
  const bool cleanup = message_.update().controller_size() == 0;
  if (cleanup) {
    ZLOG_INFO(
        "[%s] Empty controller list received in controller info message, cleaning up controller info now ..",
        __func__);
  } else {
    ZLOG_INFO("[%s] Received controller info message with number of connections [%d]", __func__,
              message_.update().controller_size());
    for (const auto& controller : message_.update().controller()) {
      if (!ProcessController(controller)) return;
    }
    SetThreadName(kUpdateThread);
  }
  UpdateControllerInfo(cleanup);
}

bool ControllerListHandlerTask::LoadControllerInfoFile() {
  ZLOG_INFO("[%s] Loading controller info xml file", __func__);
  std::string error;
  const ControllerFile::Read read = context_->file.Load(tree_.get(), &error);
  if (read != ControllerFile::Read::kDone) {
    ZLOG_ERROR("44081", "[%s] Failed to load controller xml file : %s.", __func__, error.c_str());
    // The manager sends the whole list, so a missing or incomplete file is written anew.
    if (read == ControllerFile::Read::kUnreadable) return false;
    torn_ = read == ControllerFile::Read::kForeign;
    if (torn_) context_->file.SetAside();
    return true;
  }
  const pt::ptree& list = ConnectionList();
  ZLOG_INFO("[%s] size of connection list =  [%lu]", __func__,
            static_cast<unsigned long>(list.count(kConnection)));
  for (const auto& [name, element] : list) {
    if (name != kConnection) continue;
    ConnConfig config;
    if (!config.ReadFrom(element)) {
      ZLOG_WARN("[%s] Read certificate for server [%s] failed", __func__, config.ipv4.c_str());
    }
    next_id_ = std::max(next_id_, config.id + 1);
    ZLOG_INFO("[%s] Restored connection info : [%s]", __func__, config.ToString().c_str());
    connections_.push_back(std::move(config));
  }
  return true;
}

bool ControllerListHandlerTask::ProcessController(const config::ControllerInfoMsg& controller) {
  ZLOG_INFO("[%s] Processing controller info [%s]", __func__, controller.ShortDebugString().c_str());
  const Address v4 =
      AddressOf(controller.has_ipv4_address(), controller.ipv4_address(), controller.ipv4_group());
  const Address v6 =
      AddressOf(controller.has_ipv6_address(), controller.ipv6_address(), controller.ipv6_group());
  ConnConfig config;
  config.ipv4 = v4.address;
  config.fqdn = v4.host_name;
  config.ipv6 = v6.address;
  config.fqdn_v6 = v6.host_name;
  config.version = VersionText(controller);
  const std::string all = config.ipv4 + config.fqdn + config.ipv6 + config.fqdn_v6;
  if (all.empty() || !IsPlain(all) || !IsPlain(config.version)) {
    ZLOG_ERROR("44082", "[%s] Incorrect controller address info in conrtoller info message", __func__);
    return false;
  }
  config.port = controller.port();
  config.port_v6 = controller.ipv6_port();
  if (config.port == 0 && config.port_v6 == 0) {
    ZLOG_ERROR("44082", "[%s] No port in controller info message", __func__);
    return false;
  }
  if (controller.has_uuid()) {
    config.uuid = UuidText(controller.uuid());
  } else {
    ZLOG_WARN("[%s] No controller uuid in controller info message", __func__);
  }
  if (!controller.has_version()) {
    ZLOG_WARN("[%s] No controler version in controller info message", __func__);
  }
  if (!controller.has_ssl_enabled()) ZLOG_WARN("[%s] No sslEnabled in controller info message", __func__);
  config.ssl_enabled = controller.ssl_enabled();
  if (config.ssl_enabled) {
    if (controller.certificate().empty()) {
      ZLOG_ERROR("44082", "[%s] No certificate in controller info message", __func__);
      return false;
    }
    auto certificates = SplitCertificates(controller.certificate());
    if (!certificates) {
      ZLOG_ERROR("44082", "[%s] Controller certificate format error", __func__);
      return false;
    }
    config.certificates = std::move(*certificates);
  }
  MergeConnection(std::move(config));
  return true;
}

// A controller may be in the list twice: as read from the file, and from an earlier entry of this message.
void ControllerListHandlerTask::MergeConnection(ConnConfig config) {
  const int way = config.uuid.empty() ? 2 : 1;
  const auto same = std::find_if(connections_.begin(), connections_.end(), [&](const ConnConfig& entry) {
    return config.SameController(entry) && config == entry;
  });
  config.id = same != connections_.end() && same->id >= 0 ? same->id : next_id_++;
  ConfigViewUpdateConnID(config, Operation::kAdd, config.id);
  bool differs = false;
  for (ConnConfig& entry : connections_) {
    if (!config.SameController(entry)) continue;
    entry.seen = false;
    differs = true;
  }
  if (same != connections_.end()) {
    same->seen = true;
    ZLOG_INFO("[%s] (%d) Updated connection : [%s]", __func__, way, same->ToString().c_str());
    return;
  }
  if (differs) {
    ZLOG_INFO("[%s] (%d) Entries do not match, adding new entry to list", __func__, way);
  } else {
    ZLOG_INFO("[%s] adding new entry to conn id list", __func__);
  }
  config.seen = true;
  connections_.push_back(std::move(config));
}

void ControllerListHandlerTask::ConfigViewUpdateConnID(const ConnConfig& config, Operation operation,
                                                       int id) {
  const std::string text = config.ToString();
  if (operation == Operation::kAdd && config.ssl_enabled && PemText(config.certificates).empty()) {
    ZLOG_ERROR("44082", "Controller %s/%s certificate format error", config.ipv4.c_str(),
               config.ipv6.c_str());
    return;
  }
  pt::ptree& list = ConnectionList();
  const auto found = std::find_if(list.begin(), list.end(), [&](const pt::ptree::value_type& child) {
    if (child.first != kConnection) return false;
    ConnConfig entry;
    entry.ReadFrom(child.second);
    return config.SameController(entry) && config == entry;
  });
  if (operation == Operation::kDelete) {
    if (found == list.end()) {
      ZLOG_INFO("[%s] Config view does not exists [%s]", __func__, text.c_str());
    } else {
      list.erase(found);
    }
    return;
  }
  if (found != list.end()) {
    ZLOG_INFO("[%s] Delete and re-add controller entry %s", __func__, text.c_str());
    list.erase(found);
  }
  pt::ptree element;
  ConnConfig added = config;
  added.id = id;
  added.WriteTo(&element);
  ZLOG_INFO("[%s] Setting config view connection [%s]", __func__, text.c_str());
  list.push_back({kConnection, std::move(element)});
}

void ControllerListHandlerTask::UpdateControllerInfo(bool cleanup) {
  ZLOG_INFO("[%s] updating controller info", __func__);
  if (connections_.empty()) {
    ZLOG_INFO("[%s] Connection info list is empty", __func__);
    if (torn_) ReplaceTornFile();
    return;
  }
  for (auto entry = connections_.begin(); entry != connections_.end();) {
    if (entry->seen) {
      ++entry;
      continue;
    }
    ConfigViewUpdateConnID(*entry, Operation::kDelete, entry->id);
    ZLOG_INFO("[%s] Purged connection [%s]", __func__, entry->ToString().c_str());
    entry = connections_.erase(entry);
  }
  if (!cleanup) {
    const std::string id = TransportNodeId();
    if (id.empty()) {
      ZLOG_INFO("updating controller info without TN UUID, it should be updated via HostConfigMsg");
    } else {
      ZLOG_INFO("[%s] updating controller info with TN UUID [%s]", __func__, id.c_str());
      tree_->put(std::string(kTransportNode) + "." + kUuid, id);
      UpdateTnUuidInFile(context_, id);
    }
  }
  FlushControllerInfoFile(cleanup);
}

// The proxy cannot read the present file, and the transport node's id in it is lost.
void ControllerListHandlerTask::ReplaceTornFile() {
  ConnectionList();
  FlushControllerInfoFile(true);
  context_->file.SetTnUuidSaved("");
  if (const auto id = context_->host.id()) UpdateTnUuidInFile(context_, *id);
}

// Empty when the id is unknown.
std::string ControllerListHandlerTask::TransportNodeId() const {
  if (message_.update().has_transport_node_id()) return UuidText(message_.update().transport_node_id());
  std::string id;
  if (context_->host.GetHostId(&id)) return id;
  const std::optional<std::string> stored = context_->stored_node_id();
  if (!stored) {
    ZLOG_ERROR("44061", "[%s] Failed to open host config file to read, TN UUID will not be updated.\n",
               __func__);
  }
  id = stored.value_or("");
  if (id.empty()) ZLOG_INFO("[%s] Unable to populate host ID", __func__);
  return id;
}

void ControllerListHandlerTask::FlushControllerInfoFile(bool cleanup) {
  ZLOG_INFO("[%s] Updating controller info xml file", __func__);
  if (context_->file.path().empty() || (connections_.empty() && !cleanup)) {
    ZLOG_INFO("zemproxy controllers file not updated");
    return;
  }
  if (!context_->file.Write(*tree_)) return;
  std::string reply;
  if (const int result = context_->file.Reload(&reply); result != 0) {
    ZLOG_ERROR("44085", "ZEMCLI set zemproxy controllers file failed ret [%d], reply [%s]", result,
               reply.c_str());
  }
}

pt::ptree& ControllerListHandlerTask::ConnectionList() {
  if (const auto list = tree_->get_child_optional(kConnectionList)) return *list;
  return tree_->put_child(kConnectionList, pt::ptree());
}

}  // namespace zem::controller
