#pragma once

#include <boost/intrusive_ptr.hpp>
#include <memory>
#include <string>

#include "framework/tasks/pending_table.h"
#include "mpaclient/vertical/vertical_client.h"
#include "proto/base/base.pb.h"

namespace orlane::zem::traceflow {
class TraceflowMsg;
class TraceflowPacketInRequestMsg;
class TraceflowPacketOutRequestStatusMsg;
}  // namespace orlane::zem::traceflow

namespace zem {
class Timer;
}

namespace zem::Tarvik {

class LcpAdapter;

/// Follows a test packet through the fabric: passes the manager's requests to inject one down to the
/// dataplane agent, and what the dataplane agent observes up to every proxy of the manager.  A request gets
/// one status: the dataplane agent's, or number 5 when it stays silent.
///
/// Threads: Start and Stop one after the other; the rest from any thread.
/// Ownership: always held by a shared pointer.  The provider must outlive it.
/// Limits: 50 requests wait for their status, each between 2 and 4 seconds.
class TraceflowApp : public std::enable_shared_from_this<TraceflowApp> {
 public:
  /// `lcp_adapter` may be null; nothing of the dataplane arrives then.
  TraceflowApp(AsioZemProvider& provider, boost::intrusive_ptr<LcpAdapter> lcp_adapter);
  ~TraceflowApp();
  TraceflowApp(const TraceflowApp&) = delete;
  TraceflowApp& operator=(const TraceflowApp&) = delete;

  void Start();
  /// What waits for a status is not answered any more.
  void Stop();

  /// A message of the dataplane agent.
  void DpPacketHandler(const orlane::zem::traceflow::TraceflowMsg& message);

 private:
  /// How to answer a request, and whose it is.
  struct PendingResponse {
    orlane::zem::UuidMsg round_id;
    std::string correlation_id;
    std::string reply_to;
  };

  void Init();
  void Receive(const VerticalRecord& record);
  bool Dispatch(const VerticalRecord& record);
  bool InsertResponse(const VerticalRecord& record, const orlane::zem::UuidMsg& round_id);
  void Evict();
  void TakeStatus(const orlane::zem::traceflow::TraceflowPacketOutRequestStatusMsg& status);
  void SendStatus(const PendingResponse& response,
                  const orlane::zem::traceflow::TraceflowPacketOutRequestStatusMsg& status);
  void SendObservation(const orlane::zem::traceflow::TraceflowPacketInRequestMsg& observation);

  AsioZemProvider& provider_;
  const boost::intrusive_ptr<LcpAdapter> lcp_adapter_;
  PendingTable<std::string, PendingResponse> response_map_;  // by the round's uuid
  std::shared_ptr<Timer> evict_timer_;
  VerticalClient vertical_;
};

}  // namespace zem::Tarvik
