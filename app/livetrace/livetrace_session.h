#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/core/clock.h"
#include "proto/livetrace/livetrace.pb.h"

namespace zem::Tarvik {

class LivetraceUploader;

/// One side of a live trace.  Guarded by the application's mutex.
struct LivetraceSession {
  /// How to answer the manager's request.
  struct Answer {
    std::string correlation_id;
    std::string reply_to;
  };
  /// Where the manager wants the capture; without a server it wants none.
  struct UploadTarget {
    std::string id;
    std::string server;
    std::string thumbprint;
    uint32_t port = 0;
  };

  uint64_t id = 0;
  TimePoint created;
  /// The manager has asked for it; otherwise the dataplane has begun it by itself.
  bool requested = false;
  /// Nothing once it was used.
  std::optional<Answer> answer;
  bool status_sent = false;
  bool completed = false;
  /// It has left the table.
  bool deleted = false;
  std::vector<orlane::zem::livetrace::LivetraceObservationMsg> observations;
  size_t observed_bytes = 0;
  size_t observations_dropped = 0;
  UploadTarget upload;
  /// Set from the barrier on, when there is an upload.
  std::shared_ptr<LivetraceUploader> uploader;
};

}  // namespace zem::Tarvik
