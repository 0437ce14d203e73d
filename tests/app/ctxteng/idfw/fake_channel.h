#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "app/ctxteng/channel/ctxt_channel.h"
#include "app/ctxteng/channel/mpa_channel.h"
#include "platform/core/clock.h"
#include "proto/context/idfw.pb.h"

namespace Ctxt::test {

/// A channel whose manager is the test: it keeps what is sent, and the test answers.
class FakeChannel final : public CtxtChannel {
 public:
  struct Sent {
    zem::TimePoint when;
    std::string id;
    std::string bytes;
    int events;
  };

  FakeChannel() : CtxtChannel(MpaChannel::GetInstance()) {}

  void RegisterClient(const std::string& app_id, const std::string& app_type, Callback callback) override {
    if (refuses) throw CtxtChannelError("RMQ client already registered");
    registered = app_id + " " + app_type;
    on_message = std::move(callback);
  }
  int SendMsg(const CtxtMsg& message, bool is_request) override {
    {
      std::lock_guard lock(mutex);
      const auto& events = dynamic_cast<orlane::zem::context::idfw::LoginLogoffEventMsg&>(*message.payload);
      sent.push_back({zem::Clock::Process().Now(), message.correlationId, events.SerializeAsString(),
                      events.login_logoff_event_size()});
      last = message;
      was_request = is_request;
    }
    return on_send ? on_send(message.correlationId) : 0;
  }

  /// What the manager says; null bytes: a payload that could not be read.
  void Ack(const std::string& id, int status = 0, const std::string& error = {}) {
    auto ack = std::make_shared<orlane::zem::context::idfw::LoginLogoffEventAckMsg>();
    ack->set_status_code(status);
    if (!error.empty()) ack->set_error_msg(error);
    Arrive(kAckType, id, std::move(ack));
  }
  void Arrive(const std::string& type, const std::string& id,
              std::shared_ptr<google::protobuf::Message> payload) {
    auto message = std::make_shared<CtxtMsg>();
    message->payloadType = type;
    message->correlationId = id;
    message->payload = std::move(payload);
    on_message(message);
  }
  /// Acknowledges every batch at once.
  void AckAll() {
    on_send = [this](const std::string& id) {
      Ack(id);
      return 0;
    };
  }

  static constexpr const char* kAckType = "com.orlane.zem.context.idfw.LoginLogoffEventAckMsg";

  bool refuses = false;
  std::string registered;
  Callback on_message;
  std::function<int(const std::string& id)> on_send;
  std::mutex mutex;  // guards what follows
  std::vector<Sent> sent;
  CtxtMsg last;
  bool was_request = false;
};

}  // namespace Ctxt::test
