#pragma once

#include <google/protobuf/message.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/rpc/server.h"
#include "platform/rpc/stub_factory.h"
#include "proto/messaging/messaging.pb.h"

namespace zem::sim {

using orlane::zem::messaging::GenericUnifiedMsg;

/// Receives what hosts send to one vertical's manager-side service.
class MpSink {
 public:
  virtual ~MpSink() = default;
  virtual void OnPublish(const std::string& vertical, const std::string& host,
                         const GenericUnifiedMsg& message) = 0;
  virtual void OnRequest(const std::string& vertical, const std::string& host,
                         const GenericUnifiedMsg& message, rpc::CallHandle<GenericUnifiedMsg> call) = 0;
};

/// The two calls to a vertical on a host, independent of its service type.
class HostStub {
 public:
  virtual ~HostStub() = default;
  virtual void Publish(const rpc::ClientContext& context, const GenericUnifiedMsg& message,
                       rpc::CallObserver<orlane::zem::VoidMsg>* observer) = 0;
  virtual rpc::CallHandle<GenericUnifiedMsg> Request(const rpc::ClientContext& context,
                                                     const GenericUnifiedMsg& message,
                                                     rpc::CallObserver<GenericUnifiedMsg>* observer) = 0;
  virtual void SetOnStreamDown(std::function<void(rpc::CloseReason)> hook) = 0;
};

using HostStubDone = std::function<void(std::shared_ptr<HostStub>, const rpc::Status&)>;

/// The manager's description of one vertical.
struct ManagerVertical {
  const char* name;
  const google::protobuf::Message& (*mp_prototype)();
  const google::protobuf::Message& (*host_prototype)();
  std::shared_ptr<rpc::ServiceBase> (*make_service)(const char* name, MpSink* sink);
  /// Null for a vertical that serves no calls.
  void (*make_stub)(rpc::StubFactory& factory, rpc::StubRequest request, HostStubDone done);
};

const std::vector<ManagerVertical>& ManagerVerticals();
/// Returns null when no vertical has this name.
const ManagerVertical* FindManagerVertical(std::string_view name);

/// The wire type name of a message that is a member of the unified messages.
std::string WireTypeName(const google::protobuf::Descriptor& message);

/// Returns the first member that is set and is a message; null when there is none.
const google::protobuf::Message* SetMember(const google::protobuf::Message& unified);

/// Returns the member of `unified` whose field name, message name or wire type name is `name`; null when
/// there is none.
const google::protobuf::FieldDescriptor* FindMember(const google::protobuf::Message& unified,
                                                    std::string_view name);

/// Returns the prototype of the message that travels unparsed in the vertical of `unified` and whose name,
/// short or on the wire, is `name`; null when there is none.
const google::protobuf::Message* FindRawMessage(const google::protobuf::Message& unified,
                                                std::string_view name);

std::string TypeOf(const google::protobuf::Message& unified);
void SetType(google::protobuf::Message* unified, const std::string& type);

}  // namespace zem::sim
