#include "app/pktcap/service/capture_sessions.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string_view>

#include "app/pktcap/service/file_move.h"
#include "framework/log/log.h"
#include "platform/metrics/process_metrics.h"
#include "platform/provider/work_group.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "pktcap"};

constexpr int kThreads = 4;
constexpr std::string_view kRandomPart = "XXXXXX";

SessionView ViewOf(const CaptureSession& session) {
  return {session.id, session.request, session.destination, session.state};
}

void CountSessions(size_t sessions) {
  metrics::GaugeOf(metrics::MetricId::kCaptures).Set(static_cast<int64_t>(sessions));
}

}  // namespace

CaptureSessions::CaptureSessions(metrics::Registry& metrics, const CaptureTools& tools,
                                 std::function<void(const SessionStatus&)> report)
    : metrics_(metrics), tools_(tools), report_(std::move(report)) {}

CaptureSessions::~CaptureSessions() { Stop(); }

void CaptureSessions::Start() {
  RemoveLeftovers(tools_.pipe);
  RemoveLeftovers(tools_.file);
  group_ = new WorkGroup("pktcap", metrics_, WorkGroup::kUnbounded);
  group_->Start(kThreads);
  stopping_ = false;
}

void CaptureSessions::Stop() {
  {
    std::unique_lock lock(mutex_);
    stopping_ = true;
    if (!group_) return;
    for (const auto& [id, session] : sessions_) {
      session->exporter->RequestStop();
      if (session->uploader) session->uploader->RequestStop();
    }
    const auto idle = [this] { return exporters_running_ == 0 && uploaders_running_ == 0; };
    while (!idle()) {
      ZLOG_INFO("Waiting for %d sessions to join...", exporters_running_ + uploaders_running_);
      ended_.WaitFor(lock, std::chrono::seconds(1), idle);
    }
  }
  group_->Stop();
  group_.reset();
  std::unordered_map<std::string, Session> gone;
  {
    const std::lock_guard lock(mutex_);
    gone.swap(sessions_);
  }
  for (const auto& [id, session] : gone) {
    if (!session->file.empty()) ::unlink(session->file.c_str());
  }
}

// Nobody else makes files of these names; a folder or link is not ours.
void CaptureSessions::RemoveLeftovers(const std::string& pattern) const {
  const std::filesystem::path path(pattern);
  const std::string name = path.filename().string();
  const std::string stem = name.substr(0, name.size() - kRandomPart.size());
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(path.parent_path(), error)) {
    const std::string found = entry.path().filename().string();
    struct stat facts {};
    if (found.size() != name.size() || !found.starts_with(stem)) continue;
    if (::lstat(entry.path().c_str(), &facts) != 0 || facts.st_uid != ::geteuid()) continue;
    if (!S_ISREG(facts.st_mode) && !S_ISFIFO(facts.st_mode)) continue;
    ZLOG_INFO("Removing %s, which another run has left", entry.path().c_str());
    ::unlink(entry.path().c_str());
  }
}

void CaptureSessions::Add(std::unique_ptr<CaptureSession> prepared, size_t tools, const Answer& answer) {
  const Session session(std::move(prepared));
  const SessionStatus status = Reserve(session, tools);
  answer(status);
  if (status.error != SessionError::kNone || Enqueue([this, session] { Capture(session); })) return;
  // All sessions end; nobody is told.
  Left(&exporters_running_);
}

// Counts as running from here on, so that a stop waits for it.
SessionStatus CaptureSessions::Reserve(const Session& session, size_t tools) {
  const std::lock_guard lock(mutex_);
  if (sessions_.count(session->id) != 0) {
    return SessionStatus::Failed(session->id, SessionError::kInvalidSessionId);
  }
  if (tools + 1 > kMostTools || sessions_.size() >= kMostSessions) {
    return SessionStatus::Failed(session->id, SessionError::kTooManySessions);
  }
  if (stopping_) return SessionStatus::Failed(session->id, SessionError::kNotLaunched);
  sessions_.emplace(session->id, session);
  CountSessions(sessions_.size());
  ++exporters_running_;
  return {session->id, SessionState::kRunning, SessionError::kNone};
}

SessionStatus CaptureSessions::Query(const std::string& id) const {
  const std::lock_guard lock(mutex_);
  if (sessions_.count(id) == 0) return SessionStatus::Failed(id, SessionError::kNoSession);
  return {id, SessionState::kRunning, SessionError::kNone};
}

void CaptureSessions::StopOrUpload(const std::string& id, const UploadTarget& target, const Answer& answer) {
  Session to_upload;
  answer(Decide(id, target, &to_upload));
  // An upload that cannot start meets the end of all sessions.
  if (to_upload) static_cast<void>(StartUpload(to_upload));
}

SessionStatus CaptureSessions::Decide(const std::string& id, const UploadTarget& target, Session* to_upload) {
  const std::lock_guard lock(mutex_);
  const auto found = sessions_.find(id);
  if (found == sessions_.end()) return SessionStatus::Failed(id, SessionError::kNotSupported);
  CaptureSession& session = *found->second;
  if (session.state == SessionState::kRunning) {
    // A plain stop does not take back what an upload has said before.
    if (session.to_file() && !target.fingerprint.empty()) session.upload = target;
    session.exporter->RequestStop();
    return {id, SessionState::kCaptured, SessionError::kNone};
  }
  if (stopping_ || session.state != SessionState::kCaptured || !session.to_file() || session.uploader ||
      target.token.empty()) {
    return SessionStatus::Failed(id, SessionError::kNotSupported);
  }
  session.upload = target;
  MakeUploader(&session);
  *to_upload = found->second;
  return {id, SessionState::kCaptured, SessionError::kNone};
}

bool CaptureSessions::StopLocal(const std::string& id) {
  Session dropped;
  {
    const std::lock_guard lock(mutex_);
    const auto found = sessions_.find(id);
    if (found == sessions_.end()) return false;
    found->second->exporter->RequestStop();
    if (found->second->state == SessionState::kRunning) return true;
    if (found->second->uploader) {
      // It leaves when the upload has ended.
      found->second->uploader->RequestStop();
      return true;
    }
    dropped = found->second;
    sessions_.erase(found);
    CountSessions(sessions_.size());
  }
  if (!dropped->file.empty()) ::unlink(dropped->file.c_str());
  return true;
}

std::vector<SessionView> CaptureSessions::List() const {
  const std::lock_guard lock(mutex_);
  std::vector<SessionView> views;
  for (const auto& [id, session] : sessions_) views.push_back(ViewOf(*session));
  return views;
}

std::optional<SessionView> CaptureSessions::Find(const std::string& id) const {
  const std::lock_guard lock(mutex_);
  const auto found = sessions_.find(id);
  if (found == sessions_.end()) return std::nullopt;
  return ViewOf(*found->second);
}

void CaptureSessions::Capture(const Session& session) {
  const int result = session->exporter->Run();
  if (session->to_file()) {
    FileCaptured(session, result);
  } else {
    StreamEnded(session, result);
  }
  // What is left of it counts until here, so that a stop waits for it.
  Left(&exporters_running_);
}

void CaptureSessions::FileCaptured(const Session& session, int result) {
  if (result != 0) {
    ::unlink(session->file.c_str());
    if (Leave(session, SessionState::kFailed, SessionError::kNotLaunched) && !session->local) {
      report_(SessionStatus::Failed(session->id, SessionError::kNotLaunched));
    }
    return;
  }
  if (session->local) return MoveToDestination(session);
  bool uploads = false;
  {
    const std::lock_guard lock(mutex_);
    if (stopping_ || !IsListed(session)) return;
    session->state = SessionState::kCaptured;
    uploads = !session->upload.fingerprint.empty();
    // From here on no other request starts one.
    if (uploads) MakeUploader(session.get());
  }
  report_({session->id, SessionState::kCaptured, SessionError::kNone, !uploads});
  if (!uploads || StartUpload(session) || stopping_) return;
  {
    const std::lock_guard lock(mutex_);
    session->state = SessionState::kFailed;
  }
  report_(SessionStatus::Failed(session->id, SessionError::kNotTransferred));
}

void CaptureSessions::StreamEnded(const Session& session, int result) {
  const bool good = result == 0;
  if (!Leave(session, good ? SessionState::kDone : SessionState::kFailed,
             good ? SessionError::kNone : SessionError::kNotLaunched) ||
      session->local) {
    return;
  }
  report_(good ? SessionStatus{session->id, SessionState::kCaptured, SessionError::kNone}
               : SessionStatus::Failed(session->id, SessionError::kNotLaunched));
}

void CaptureSessions::MoveToDestination(const Session& session) {
  const bool moved = !stopping_ && MoveFile(session->file, session->destination, stopping_);
  if (!moved) ::unlink(session->file.c_str());
  static_cast<void>(Leave(session, moved ? SessionState::kDone : SessionState::kFailed,
                          moved ? SessionError::kNone : SessionError::kNotLaunched));
}

void CaptureSessions::MakeUploader(CaptureSession* session) const {
  session->uploader = new PktcapUploader(tools_, session->id, session->file, session->upload);
}

bool CaptureSessions::StartUpload(const Session& session) {
  ++uploaders_running_;
  if (Enqueue([this, session] { Upload(session); })) return true;
  Left(&uploaders_running_);
  return false;
}

void CaptureSessions::Upload(const Session& session) {
  const bool arrived = session->uploader->Run();
  ::unlink(session->file.c_str());
  const SessionStatus status = arrived ? SessionStatus{session->id, SessionState::kDone, SessionError::kNone}
                                       : SessionStatus::Failed(session->id, SessionError::kNotTransferred);
  if (Leave(session, status.state, status.error)) report_(status);
  Left(&uploaders_running_);
}

bool CaptureSessions::Enqueue(std::function<void()> work) {
  const std::lock_guard lock(mutex_);
  return !stopping_ && group_->Enqueue(MakeWorkItem(std::move(work)));
}

void CaptureSessions::Left(std::atomic<int>* running) {
  const std::lock_guard lock(mutex_);
  --*running;
  ended_.NotifyAll();
}

// Takes a session that has ended out of the table.  False when nobody is to be told: it was taken out before,
// or all sessions end.
bool CaptureSessions::Leave(const Session& session, SessionState state, SessionError error) {
  {
    const std::lock_guard lock(mutex_);
    if (stopping_ || !IsListed(session)) return false;
    session->state = state;
    sessions_.erase(session->id);
    CountSessions(sessions_.size());
  }
  ZLOG_INFO("Session %s finished with status %s", session->id.c_str(), SessionErrorText(error));
  return true;
}

// With the mutex held.  Another session may have the id by now.
bool CaptureSessions::IsListed(const Session& session) const {
  const auto found = sessions_.find(session->id);
  return found != sessions_.end() && found->second == session;
}

}  // namespace zem::Tarvik
