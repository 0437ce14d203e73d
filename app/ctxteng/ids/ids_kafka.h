#pragma once

#include <memory>
#include <vector>

#include "app/ctxteng/kafka/kafka_owner.h"
#include "app/ctxteng/kafka/site_id.h"

namespace orlane::zem {
namespace context::ids {
class EventInfoMsg;
class PcapInfoMsg;
}  // namespace context::ids
namespace covedb {
class IdsEventConfigMsg;
}
}  // namespace orlane::zem

namespace zem::upm {
struct ProfileUpdate;
}

namespace Ctxt {

/// The road of alerts and captures to Kafka, and the site that they name.
///
/// Threads: configuration (`Take*`, `Shutdown`) one after the other, by a thread that may wait for files; the
/// rest from any thread.
class IdsKafka {
 public:
  /// Both outlive the object.
  IdsKafka(PaceClient::KafkaAlarm* alarm, PaceClient::KafkaDeliveries& deliveries);
  ~IdsKafka();
  IdsKafka(const IdsKafka&) = delete;
  IdsKafka& operator=(const IdsKafka&) = delete;

  void TakeProfiles(const std::vector<zem::upm::ProfileUpdate>& updates, bool full_sync);
  void TakeEventConfig(const orlane::zem::covedb::IdsEventConfigMsg& config, bool with_captures);
  /// Forgets everything; waits at most 10 seconds for what was sent.
  void Shutdown();

  bool IsReady() const;
  /// 0, or -1 when there is no client.
  int SendEvent(const orlane::zem::context::ids::EventInfoMsg& message);
  int SendPcap(const orlane::zem::context::ids::PcapInfoMsg& message);
  SiteId::Halves site() const { return site_.Get(); }
  /// Clears the alarm of a client that is ready.
  void ClearAlarm();

 private:
  class Profiles;

  void Disable(bool with_captures);

  SiteId site_;
  PaceClient::KafkaOwner kafka_;
  const std::unique_ptr<Profiles> profiles_;
};

}  // namespace Ctxt
