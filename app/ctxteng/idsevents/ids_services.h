#pragma once

#include <cstdint>
#include <string>

namespace orlane::zem {
class TenantContextMsg;
class UuidMsg;
namespace context::ids {
class EventInfoMsg;
class PcapInfoMsg;
}  // namespace context::ids
}  // namespace orlane::zem

namespace IdsEvtEng {

/// What the event engine asks of the intrusion detection client, which owns it.
///
/// Threads: all operations from any of the engine's threads, several at once.  None of them may wait for a
/// peer: the thread that receives the alerts calls some of them for each alert.
class IIdsServices {
 public:
  virtual ~IIdsServices() = default;

  /// Whether alerts go to Kafka as well.
  virtual bool IsKafkaReady() = 0;
  /// 0 when a client has taken the message, -1 when there is none.
  virtual int SendKafkaEvent(const orlane::zem::context::ids::EventInfoMsg& message) = 0;
  virtual int SendKafkaPcap(const orlane::zem::context::ids::PcapInfoMsg& message) = 0;

  /// This host's identifier.  False when it is not known; `uuid` is then unchanged.
  virtual bool GetTnUuid(orlane::zem::UuidMsg* uuid) = 0;
  virtual void GetSiteId(orlane::zem::UuidMsg* uuid) = 0;
  /// False when the rule's tenant is not known; `tenant` is then unchanged.
  virtual bool FillTenantContext(uint32_t rule_id, orlane::zem::TenantContextMsg* tenant) = 0;
  /// The tenant as a line of the external log shows it; empty when it is not known.
  virtual std::string GetTenantString(uint32_t rule_id) = 0;

  /// The feature's switch.
  virtual bool IsEnabled() = 0;
  virtual bool IsExternalLoggingEnabled() = 0;
  virtual bool IsPcapEnabled() = 0;
};

}  // namespace IdsEvtEng
