#pragma once

#include <chrono>
#include <span>
#include <string_view>

#include "framework/log/log.h"
#include "mpaclient/bus/bus_record.h"

namespace google::protobuf {
class Message;
}

namespace zem {

/// The verticals that reach the manager over RPC, in the order of the table.
enum class VerticalId {
  kPacketCapture,
  kTraceflow,
  kLldp,
  kSupportBundle,
  kIda,
  kControllerMgmt,
  kSwitching,
  kAlarmsProvider,
  kLivetrace,
  kIpReputation,
  kIdfw,
  kContextHealth,
  kIds,
  kIdsPcap,
  kHealthCheck,
  kCount,
};

/// A message type of a vertical, and the member of both unified messages that carries it.
struct VerticalType {
  const char* type_name;
  const char* member;
  /// Sent by the manager only.
  bool inbound_only = false;
};

/// A message type that the application of a vertical sends, and the record that it travels in.
struct SentType {
  const char* type_name;
  BusMessageType record;
  /// The correlation id of every message of this type; null when the sender chooses it.
  const char* correlation = nullptr;
  /// The correlation id of a message whose sender gives none; null for a header without the key.
  const char* default_correlation = nullptr;
};

/// What the channel does differently for a vertical.
struct VerticalTraits {
  /// Served only after the master has answered its app-init request.
  bool needs_app_init = false;
  /// A record's routing key names the APH to send to.
  bool routing_key_as_aph = false;
  /// The application knows some message types by the names that they had before.
  bool old_type_names = false;
  /// The contents of its messages must not be logged.
  bool secret = false;
  /// Serves the manager's calls and makes none of its own, so it needs no stubs.
  bool only_serves = false;
  std::chrono::milliseconds purge_period{300000};
  /// How long after a failed attempt the bus is tried again.
  std::chrono::microseconds bus_retry{5000000};
};

/// What VerticalClient writes into the records of an application and into its log lines.
struct VerticalRecords {
  /// The message types that the application sends without naming the record type itself.
  std::span<const SentType> sent;
  /// The header's "msg_type"; null for headers without it and without a message id.
  const char* msg_class = nullptr;
  /// The component of the application's log lines.
  LogSource log{"mpa-client"};
  /// The name of the receive callback in log lines; null for the vertical's name.
  const char* receiver = nullptr;
  /// The header's "request_type"; null for headers without it.
  const char* request_type = nullptr;
};

/// A row of the table of verticals: everything that is different between two verticals.
struct Vertical {
  VerticalId id;
  const char* name;
  /// The application's id in its registration.
  const char* app_id;
  /// Names that appear in log lines; `host_class` is null when the manager calls no service of the vertical.
  const char* client_class;
  const char* host_class;
  const char* observer_class;
  const char* mp_unified_class;
  const char* host_unified_class;
  VerticalTraits traits;
  /// In the order in which a set member is looked for.  Empty: every type travels unparsed.
  std::span<const VerticalType> types;
  const google::protobuf::Message& (*mp_prototype)();
  const google::protobuf::Message& (*host_prototype)();
  VerticalRecords records;
};

constexpr const char* kAppInitType = "com.orlane.zem.messaging.appinit.AppInitMsg";
constexpr const char* kAppInitConfigType = "com.orlane.zem.messaging.appinit.AppInitConfigMsg";
constexpr const char* kAppInitConfigAckType = "com.orlane.zem.messaging.appinit.AppInitConfigAckMsg";

/// Null when no vertical has this name.
const Vertical* FindVertical(std::string_view name);
const Vertical& GetVertical(VerticalId id);
/// The whole table, in order of the ids.
std::span<const Vertical> AllVerticals();

}  // namespace zem
