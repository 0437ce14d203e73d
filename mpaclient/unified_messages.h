#pragma once

#include <memory>
#include <string>

#include "mpaclient/bus/bus_record.h"

namespace google::protobuf {
class Message;
}

namespace orlane::zem::messaging {
class GenericUnifiedMsg;
}

namespace zem {

struct Vertical;
class UnifiedLayout;

/// The text of a message's tracking id, for log lines.
std::string TrackingIdText(const orlane::zem::messaging::GenericUnifiedMsg& message);

/// Builds the messages in which one vertical's records travel to the manager.
///
/// Threads: immutable; all operations from any thread.
class UnifiedMessages {
 public:
  using GenericUnifiedMsg = orlane::zem::messaging::GenericUnifiedMsg;
  using Message = google::protobuf::Message;

  explicit UnifiedMessages(const Vertical& vertical);

  /// A new message of the vertical that carries `type_name`.
  std::unique_ptr<Message> GetMpUnifiedMsg(const std::string& type_name) const;
  /// The member of `unified` for that type; null when the vertical does not send it.
  Message* GetMsgPayload(Message* unified, const std::string& type_name) const;

  /// Puts the record's payload into `out`, under `correlation_id` unless it is null.  The record's message
  /// type goes into `type_out`.  Returns false after a log line.
  bool GetGenericUnifiedMsg(GenericUnifiedMsg* out, const rmqClientMessage& record,
                            const std::string* correlation_id, std::string* type_out) const;
  bool GetAppInitUnifiedMsg(GenericUnifiedMsg* out) const;
  /// The answer to an app-init config that the manager sends unasked; returns false when it cannot be
  /// serialized.
  bool BuildAppInitCfgAckMsg(GenericUnifiedMsg* answer, bool success) const;

  const UnifiedLayout& layout() const { return layout_; }

 private:
  bool BuildAppInitMsg(Message* message) const;

  const Vertical& vertical_;
  const UnifiedLayout& layout_;
};

}  // namespace zem
