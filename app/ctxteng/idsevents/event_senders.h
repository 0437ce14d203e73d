#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "app/ctxteng/base/client_param.h"
#include "app/ctxteng/idsevents/intake.h"
#include "app/ctxteng/idsevents/roads.h"
#include "app/ctxteng/idsqueue/interruption.h"
#include "app/ctxteng/idsrecord/event_info.h"

namespace IdsEvtEng {

class EventMerge;
class IIdsServices;

/// Merges what waits in the queues of alerts, and sends it in batches.
///
/// Threads: each `Run*` is the body of one thread, until the engine stops; `SendBatch` by one thread for each
/// queue.
class EventSenders {
 public:
  /// The references outlive the object.
  EventSenders(const IdsParam& param, Intake& intake, Road& manager, Road& kafka, IIdsServices& services,
               EventLookups lookups, Interruption& interruption);

  void RunManager(Class c);
  void RunKafka();

  /// One round of the queue towards the manager.
  void SendBatch(Class c);
  /// One round of the queue towards Kafka, whose alerts go on towards the manager.
  void SendKafkaBatch();

 private:
  class Batch;

  void SendMerged(EventMerge* merge, Road* road, bool to_kafka);

  const IdsParam& param_;
  Intake& intake_;
  Road& manager_;
  Road& kafka_;
  IIdsServices& services_;
  const EventLookups lookups_;
  Interruption& interruption_;
};

}  // namespace IdsEvtEng
