#pragma once

#include <cstdint>
#include <string>

namespace Ctxt {

/// The way to the guest introspection multiplexer.
class MuxPort {
 public:
  virtual ~MuxPort() = default;
  /// Hands over a serialized MuxConfigMsg; waits for the multiplexer.  Returns the library's status, 0 is
  /// success.
  virtual uint32_t ConfigureMux(const std::string& bytes) = 0;
};

/// The alarm that a partner's service VM has lost its channel ("ENDPOINT_PROTECTION_PARTNER_CHANNEL_DOWN"),
/// by the id of the service instance.  `Raise` and `Reset` give false when it could not be posted.
class PartnerAlarm {
 public:
  virtual ~PartnerAlarm() = default;
  /// Before any other operation; again after a Shutdown.
  virtual void Start() = 0;
  virtual bool Raise(const std::string& service_instance_id) = 0;
  virtual bool Reset(const std::string& service_instance_id) = 0;
  virtual void ResetAll(const std::string& service_instance_id) = 0;
  virtual void Shutdown() = 0;
};

/// Where each step of a configuration reports how it ended.
class ConfigHealth {
 public:
  virtual ~ConfigHealth() = default;
  virtual void SendStatus(uint32_t code, const std::string& text) = 0;
};

}  // namespace Ctxt
