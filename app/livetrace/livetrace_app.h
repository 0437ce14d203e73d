#pragma once

#include <boost/intrusive_ptr.hpp>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "app/livetrace/capture_folder.h"
#include "app/livetrace/livetrace_session.h"
#include "app/livetrace/session_table.h"
#include "mpaclient/vertical/vertical_client.h"

namespace zem {
class Timer;
}

namespace zem::Tarvik {

class LcpAdapter;
class LivetraceUploader;

/// Lets the manager watch the traffic of a flow: stands between it and the dataplane agent, holds back what
/// is observed until the trace's barrier, and uploads the capture, if the manager wants one, before it
/// reports the barrier.
///
/// Threads: Start and Stop one after the other; the rest from any thread.
/// Ownership: always held by a shared pointer.  The provider must outlive it.
/// Limits: 1024 traces; 10,000 observations or 8 MiB in each session; 32 uploads at a time.
class LivetraceApp : public std::enable_shared_from_this<LivetraceApp> {
 public:
  struct Settings {
    /// Where the dataplane writes captures; ends with a slash.
    std::string captures = "/tmp/livetrace/pktcap/";
    std::vector<std::string> upload_command = {"/usr/bin/python",
                                               "/opt/orlane/zem-tarvik/libexec/sbundle-upload.py"};
  };

  /// Makes the process's one instance; while there is one, gives that.  `lcp_adapter` may be null; nothing of
  /// the dataplane arrives then.
  static std::shared_ptr<LivetraceApp> Create(AsioZemProvider& provider,
                                              boost::intrusive_ptr<LcpAdapter> lcp_adapter,
                                              Settings settings);
  /// The process's instance, or null.
  static std::shared_ptr<LivetraceApp> Instance();

  /// Stops.
  ~LivetraceApp();
  LivetraceApp(const LivetraceApp&) = delete;
  LivetraceApp& operator=(const LivetraceApp&) = delete;

  void Start();
  /// Deletes all sessions; returns when their uploads have ended, which takes some seconds at most.
  void Stop();
  /// From Start to Stop.
  bool running() const;

  /// The traces by their id, with their names.
  std::vector<std::pair<uint64_t, std::string>> ListSessions() const;
  /// 0, or -1 when there is no such trace.
  int GetSessionName(uint64_t id, std::string* name) const;

  /// A message of the dataplane agent.
  void DpPacketHandler(const orlane::zem::livetrace::LivetraceMsg& message);

 private:
  using SessionPtr = SessionTable::SessionPtr;
  using Answer = LivetraceSession::Answer;

  LivetraceApp(AsioZemProvider& provider, boost::intrusive_ptr<LcpAdapter> lcp_adapter, Settings settings);

  void Init();
  void TickConnect();
  void Receive(const VerticalRecord& record);
  void TakeRequest(const VerticalRecord& record);
  void TakePublish(const VerticalRecord& record);
  std::optional<orlane::zem::livetrace::LivetraceMsg> Parse(const VerticalRecord& record) const;
  bool SendDown(const orlane::zem::livetrace::LivetraceMsg& message) const;
  bool OpenSession(const VerticalRecord& record, const orlane::zem::livetrace::LivetraceRequestMsg& request);
  bool InsertLocked(const SessionPtr& session, const orlane::zem::livetrace::LivetraceRequestMsg& request,
                    std::optional<orlane::zem::livetrace::LivetraceResponseMsg>* overridden);
  void DeleteSession(uint64_t id);

  void TakeResponse(const orlane::zem::livetrace::LivetraceResponseMsg& response);
  void KeepObservation(const orlane::zem::livetrace::LivetraceObservationMsg& observation);
  void TakeStatus(const orlane::zem::livetrace::LivetraceStatusMsg& status);
  void TakeInvalidation(const orlane::zem::livetrace::LivetraceInvalidationMsg& invalidation);
  void TakeOnboard(const orlane::zem::livetrace::LivetraceOnboardMsg& onboard);
  void TakeBarrier(const orlane::zem::livetrace::LivetraceBarrierMsg& message);

  /// What a barrier has to tell the manager.
  struct Ending {
    orlane::zem::livetrace::LivetraceBarrierMsg barrier;
    std::optional<orlane::zem::livetrace::LivetraceResponseMsg> response;
  };
  /// Null when the upload has begun and will publish `ending`; otherwise the upload that cannot begin.
  std::shared_ptr<LivetraceUploader> BeginUploadLocked(const SessionPtr& session, const Ending& ending);
  void UploadDone(const SessionPtr& session, const Ending& ending);
  void Publish(const Ending& ending);
  bool Publish(const char* type, const char* failure, const google::protobuf::Message& message);
  int SendAnswer(const Answer& answer, std::string payload);

  void RetireLocked(const SessionPtr& session);
  void Evict();
  void JoinEndedUploads();
  void RemoveLeftCaptures() const;
  void RemoveUnwanted(const std::string& capture) const;

  AsioZemProvider& provider_;
  const boost::intrusive_ptr<LcpAdapter> lcp_adapter_;
  const CaptureFolder captures_;
  const std::vector<std::string> upload_command_;

  mutable std::mutex mutex_;  // guards what follows; nothing is sent or waited for under it
  bool running_ = false;
  bool initialized_ = false;
  std::shared_ptr<Timer> connect_timer_;
  std::shared_ptr<Timer> evict_timer_;
  SessionTable table_;
  /// Joined by the eviction once they are done, and by Stop.
  std::list<std::shared_ptr<LivetraceUploader>> uploads_;

  VerticalClient vertical_;
};

}  // namespace zem::Tarvik
