#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace google::protobuf {
class FieldDescriptor;
class Message;
}  // namespace google::protobuf

namespace zem {

struct Vertical;

/// The layout of one vertical's two unified messages: the members for its types, looked up once.
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

  /// The first member that is set, in the order of the vertical's types; null when none is set.
  const google::protobuf::Message* HostMember(const google::protobuf::Message& unified) const;

  /// The app-init config; null when it is not set, and for a vertical without the handshake.
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
