#pragma once

#include <memory>
#include <string>

#include "mpaclient/bus/bus_record.h"
#include "mpaclient/mpa_client_app_specific.h"
#include "platform/rpc/call.h"

namespace zem {

/// Turns the manager's calls of one vertical into records and delivers them; the base of every host service,
/// beside the generated service.
///
/// Threads: called on the forwarding provider; the vertical's receive callback runs inside.
class MpaClientHostService {
 public:
  using GenericUnifiedMsg = MpaClient::GenericUnifiedMsg;
  using VoidMsg = MpaClient::VoidMsg;
  using Message = google::protobuf::Message;

  explicit MpaClientHostService(std::shared_ptr<MpaClientAppSpecific> instance);
  virtual ~MpaClientHostService();

  /// Parses the vertical's message from field 1.  Sets `type_out` if the message has a type.  Returns null
  /// when it does not parse.
  virtual std::unique_ptr<Message> GetHostUnifiedMsg(const GenericUnifiedMsg& generic,
                                                     std::string* type_out) const;
  /// The member that is set; null, after a log line, when there is none.
  virtual const Message* GetRequestMsg(const Message& host_unified) const;
  virtual std::string GetAppType(const Message& host_unified) const;
  virtual std::shared_ptr<MpaClientAppSpecific> GetClient(const std::string& app_id) const;

  /// Handles a publish of the manager, which is answered at once.
  void MpaMsgHandler(rpc::ServerContext& context, const GenericUnifiedMsg& generic,
                     rpc::CallHandle<VoidMsg> handle);
  /// Handles a request of the manager.  An app-init config that the manager sends unasked is answered here.
  void HandleRequest(rpc::ServerContext& context, const GenericUnifiedMsg& generic,
                     rpc::CallHandle<GenericUnifiedMsg> handle);

  /// Returns the name that the type had before; empty when it always had this one.
  std::string ConvertObjTypeToOldName(const std::string& type_name) const;

 private:
  /// A message as received, and the vertical's message in it, which is parsed only once because it may hold
  /// megabytes.
  struct Received {
    const GenericUnifiedMsg& generic;
    const Message* unified;  // null when it does not parse
    const std::string& type;
  };

  /// Handles a request that the vertical answers later.
  void MpaRpcMsgHandler(rpc::ServerContext& context, const Received& received,
                        const rpc::CallHandle<GenericUnifiedMsg>& handle);
  bool BuildRmqClientMessage(const Received& received, const rpc::ServerContext& context,
                             const std::string& correlation_id, bool publish, BusRecord* record,
                             std::string* app_type_out) const;
  void Receive(rpc::ServerContext& context, const Received& received, const std::string& correlation_id,
               const rpc::CallHandle<GenericUnifiedMsg>* handle);

  const std::shared_ptr<MpaClientAppSpecific> instance_;
  const Vertical& vertical_;
};

/// A host service of the generated service class `Service`.
template <class Service>
class HostServiceOf final : public Service, public MpaClientHostService {
 public:
  using MpaClientHostService::MpaClientHostService;

  void MsgHandler(rpc::ServerContext& context, const GenericUnifiedMsg& request,
                  rpc::CallHandle<VoidMsg> handle) override {
    MpaMsgHandler(context, request, std::move(handle));
  }
  void RpcMsgHandler(rpc::ServerContext& context, const GenericUnifiedMsg& request,
                     rpc::CallHandle<GenericUnifiedMsg> handle) override {
    HandleRequest(context, request, std::move(handle));
  }
};

}  // namespace zem
