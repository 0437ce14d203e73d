#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "mpaclient/bus/bus_record.h"
#include "platform/rpc/client.h"
#include "proto/messaging/messaging.pb.h"

namespace zem {

class ServiceObserver;

/// Receives the answers to a vertical's requests.
class AnswerHandler {
 public:
  virtual ~AnswerHandler() = default;
  /// The call of `observer` has ended; `answer` is empty unless `status` is ok.
  virtual void HandleMpResponse(const rpc::Status& status,
                                const orlane::zem::messaging::GenericUnifiedMsg& answer,
                                ServiceObserver* observer) = 0;
};

/// Waits for the answer of one request to the manager; deletes itself when the call has ended.
class ServiceObserver final : public rpc::CallObserver<orlane::zem::messaging::GenericUnifiedMsg> {
 public:
  /// `name` is the observer's name in log lines; `sequence` is that of an app-init request, 0 for a request
  /// of the vertical.
  ServiceObserver(std::weak_ptr<AnswerHandler> handler, const char* name, uint32_t sequence);

  void Next(const orlane::zem::messaging::GenericUnifiedMsg& message) override;
  void CallStatus(const rpc::Status& status) override;

  uint32_t sequence() const { return sequence_; }
  /// Sets the record in which the answer is delivered to the vertical, and the header without the type.
  void PrepareResponse(BusRecord response, BusHeader header);
  BusRecord& response() { return response_; }
  const BusHeader& response_header() const { return response_header_; }

 private:
  const std::weak_ptr<AnswerHandler> handler_;
  const char* const name_;
  const uint32_t sequence_;
  BusRecord response_{kRmqMpRpcResponse};
  BusHeader response_header_;
  orlane::zem::messaging::GenericUnifiedMsg answer_;
};

/// Waits for the end of a publish and logs a failure; deletes itself when the call has ended.
class VoidMsgObserver final : public rpc::CallObserver<orlane::zem::VoidMsg> {
 public:
  explicit VoidMsgObserver(std::string app_type) : app_type_(std::move(app_type)) {}

  void Next(const orlane::zem::VoidMsg& message) override;
  void CallStatus(const rpc::Status& status) override;

 private:
  const std::string app_type_;
};

}  // namespace zem
