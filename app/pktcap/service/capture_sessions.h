#pragma once

#include <atomic>
#include <boost/intrusive_ptr.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "app/pktcap/service/capture_session.h"
#include "platform/core/condition.h"

namespace zem {

namespace metrics {
class Registry;
}
class WorkGroup;

namespace Tarvik {

/// The host's capture sessions: their states, and the threads on which they capture and upload.
///
/// Threads: `Start` and `Stop` by the owner, all others from any thread.  Nothing blocks but `Stop` and what
/// runs on the sessions' own threads.
class CaptureSessions {
 public:
  static constexpr size_t kMostSessions = 2;
  /// Capturing tools on the host, of whomever.
  static constexpr size_t kMostTools = 4;

  /// `report` is called without a lock, on a thread of a session.
  CaptureSessions(metrics::Registry& metrics, const CaptureTools& tools,
                  std::function<void(const SessionStatus&)> report);
  ~CaptureSessions();

  /// Removes what a killed daemon has left behind, then takes sessions.
  void Start();
  /// Ends all sessions and their tools, and returns when nothing of them runs or is left on the host.
  void Stop();
  bool stopping() const { return stopping_; }
  /// For what has to end with the sessions.
  const std::atomic<bool>* stop_flag() const { return &stopping_; }

  using Answer = std::function<void(const SessionStatus&)>;
  /// Starts a session that was prepared, unless it exists, or there are too many.  `tools` is how many
  /// capturing tools the host runs.  Calls `answer` once, before anything of the session is reported.
  void Add(std::unique_ptr<CaptureSession> session, size_t tools, const Answer& answer);
  SessionStatus Query(const std::string& id) const;
  /// Ends a running session, or has the file of one that has ended uploaded.  A target without fingerprint is
  /// none.  Calls `answer` once, before the upload begins.
  void StopOrUpload(const std::string& id, const UploadTarget& target, const Answer& answer);
  /// Ends a running session, or drops one with its file.  False when there is none.
  [[nodiscard]] bool StopLocal(const std::string& id);

  std::vector<SessionView> List() const;
  std::optional<SessionView> Find(const std::string& id) const;

 private:
  using Session = std::shared_ptr<CaptureSession>;

  void Capture(const Session& session);
  void FileCaptured(const Session& session, int result);
  void StreamEnded(const Session& session, int result);
  void MoveToDestination(const Session& session);
  [[nodiscard]] SessionStatus Reserve(const Session& session, size_t tools);
  [[nodiscard]] SessionStatus Decide(const std::string& id, const UploadTarget& target, Session* to_upload);
  void MakeUploader(CaptureSession* session) const;
  [[nodiscard]] bool StartUpload(const Session& session);
  void Upload(const Session& session);
  [[nodiscard]] bool Enqueue(std::function<void()> work);
  void Left(std::atomic<int>* running);
  [[nodiscard]] bool Leave(const Session& session, SessionState state, SessionError error);
  bool IsListed(const Session& session) const;
  void RemoveLeftovers(const std::string& pattern) const;

  metrics::Registry& metrics_;
  const CaptureTools tools_;
  const std::function<void(const SessionStatus&)> report_;
  boost::intrusive_ptr<WorkGroup> group_;
  std::atomic<int> exporters_running_{0};
  std::atomic<int> uploaders_running_{0};
  std::atomic<bool> stopping_{true};
  mutable std::mutex mutex_;  // guards sessions_ and what is in them
  Condition ended_;
  std::unordered_map<std::string, Session> sessions_;
};

}  // namespace Tarvik
}  // namespace zem
