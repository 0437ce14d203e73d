#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "app/ctxteng/base/client_param.h"
#include "app/ctxteng/idsevents/intake.h"
#include "app/ctxteng/idsevents/roads.h"
#include "app/ctxteng/idsqueue/capture_files.h"
#include "app/ctxteng/idsqueue/interruption.h"

namespace IdsEvtEng {

class IIdsServices;

/// Sends the announced captures with their files, and removes the files: those that are sent, and those that
/// nobody asked for.
///
/// Threads: each `Run*` is the body of one thread, until the engine stops; the other operations by one thread
/// for each queue.
class PcapSenders {
 public:
  /// The references outlive the object.
  PcapSenders(const IdsParam& param, Intake& intake, const CaptureFiles& files, Road& manager, Road& kafka,
              IIdsServices& services, Interruption& interruption);

  void RunManager(Class c);
  void RunKafka();
  void RunCleaner();

  /// One round of the queue towards the manager, which removes the files.
  void SendBatch(Class c);
  /// One round of the queue towards Kafka.  Its captures go on towards the manager with their files.
  void SendKafkaBatch();

 private:
  class Batch;

  const IdsParam& param_;
  Intake& intake_;
  const CaptureFiles& files_;
  Road& manager_;
  Road& kafka_;
  IIdsServices& services_;
  Interruption& interruption_;
};

}  // namespace IdsEvtEng
