#pragma once

#include <chrono>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace google::protobuf {
class Descriptor;
class FieldDescriptor;
class Message;
}  // namespace google::protobuf

namespace zem {

/// The verticals that have a road of their own to the manager.  The order is that of the factory's table.
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
  /// Only ever comes from the manager.
  bool inbound_only = false;
};

/// What is different between two verticals.
struct Vertical {
  VerticalId id;
  const char* name;
  /// Names that stand in the log.
  const char* client_class;
  const char* host_class;
  const char* observer_class;
  const char* mp_unified_class;
  const char* host_unified_class;
  /// Served only after the master has answered its app-init request.
  bool needs_app_init;
  /// A record's routing key names the APH to send to.
  bool routing_key_as_aph;
  /// Types arrive under their new names, the vertical knows the old ones.
  bool old_type_names;
  /// The contents of its messages are not for the log.
  bool secret;
  std::chrono::milliseconds purge_period;
  /// In the order in which a set member is looked for.  Empty: every type travels unparsed.
  std::span<const VerticalType> types;
  const google::protobuf::Message& (*mp_prototype)();
  const google::protobuf::Message& (*host_prototype)();
};

constexpr const char* kAppInitType = "com.orlane.zem.messaging.appinit.AppInitMsg";
constexpr const char* kAppInitConfigType = "com.orlane.zem.messaging.appinit.AppInitConfigMsg";
constexpr const char* kAppInitConfigAckType = "com.orlane.zem.messaging.appinit.AppInitConfigAckMsg";

/// Null for a name without a road.
const Vertical* FindVertical(std::string_view name);
const Vertical& GetVertical(VerticalId id);

/// The unified messages of one vertical with their members looked up once.
///
/// Threads: immutable; all operations from any thread.
class UnifiedLayout {
 public:
  static const UnifiedLayout& Of(const Vertical& vertical);

  explicit UnifiedLayout(const Vertical& vertical);

  /// A new request message of the given type.
  std::unique_ptr<google::protobuf::Message> NewMp(const std::string& type_name) const;
  std::unique_ptr<google::protobuf::Message> NewHost() const;

  /// The member for `type_name` of a message made by NewMp; null for a type the vertical does not have.
  google::protobuf::Message* MutableMpMember(google::protobuf::Message* unified,
                                             std::string_view type_name) const;

  /// The set member that comes first; null when none is set.
  const google::protobuf::Message* HostMember(const google::protobuf::Message& unified) const;

  /// Null when it is not set or the vertical has none.
  const google::protobuf::Message* HostAppInitConfig(const google::protobuf::Message& unified) const;

  /// Whether the vertical's messages can carry the answer to an app-init config.
  bool AnswersAppInitConfig() const { return mp_app_init_config_ack_ != nullptr; }

  std::string HostType(const google::protobuf::Message& unified) const;

 private:
  struct Member {
    std::string_view type_name;
    const google::protobuf::FieldDescriptor* mp;
    const google::protobuf::FieldDescriptor* host;
  };

  const Vertical& vertical_;
  const google::protobuf::FieldDescriptor* mp_type_;
  const google::protobuf::FieldDescriptor* host_type_;
  const google::protobuf::FieldDescriptor* mp_app_init_;
  const google::protobuf::FieldDescriptor* mp_app_init_config_ack_;
  const google::protobuf::FieldDescriptor* host_app_init_config_;
  const google::protobuf::FieldDescriptor* mp_raw_;
  const google::protobuf::FieldDescriptor* host_raw_;
  std::vector<Member> members_;
};

}  // namespace zem
