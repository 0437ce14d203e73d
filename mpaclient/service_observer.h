#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "mpaclient/bus/bus_record.h"
#include "platform/rpc/client.h"
#include "proto/messaging/messaging.pb.h"

namespace zem {

class MpaClientAppSpecific;

/// Waits for the answer of one request to the manager; deletes itself when the call has ended.
class ServiceObserver final : public rpc::CallObserver<orlane::zem::messaging::GenericUnifiedMsg> {
 public:
  /// `sequence` is that of an app-init request, 0 for a vertical's own.
  ServiceObserver(std::weak_ptr<MpaClientAppSpecific> client, const char* name, uint32_t sequence);

  void Next(const orlane::zem::messaging::GenericUnifiedMsg& message) override;
  void CallStatus(const rpc::Status& status) override;

  uint32_t sequence() const { return sequence_; }
  /// The record that the answer will travel in to the vertical, and its header so far.
  void PrepareResponse(BusRecord response, BusHeader header);
  BusRecord& response() { return response_; }
  const BusHeader& response_header() const { return response_header_; }

 private:
  const std::weak_ptr<MpaClientAppSpecific> client_;
  const char* const name_;
  const uint32_t sequence_;
  BusRecord response_{kRmqMpRpcResponse};
  BusHeader response_header_;
  orlane::zem::messaging::GenericUnifiedMsg answer_;
};

/// The end of a publish: only a failure is told.
class VoidMsgObserver final : public rpc::CallObserver<orlane::zem::VoidMsg> {
 public:
  explicit VoidMsgObserver(std::string app_type) : app_type_(std::move(app_type)) {}

  void Next(const orlane::zem::VoidMsg& message) override;
  void CallStatus(const rpc::Status& status) override;

 private:
  const std::string app_type_;
};

}  // namespace zem
