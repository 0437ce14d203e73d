#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "app/pktcap/exporter/capture_parameters.h"
#include "app/pktcap/service/capture_session.h"
#include "app/pktcap/service/session_status.h"
#include "mpaclient/vertical/vertical_client.h"

namespace orlane::zem::packetcapture {
class PktCapHostToManagerMsg;
class PktCapOperationMsg;
class PktCapQueryMsg;
class PktCapRequestMsg;
}  // namespace orlane::zem::packetcapture

namespace zem {

class AsioZemProvider;
class TaskThread;

namespace Tarvik {

class CaptureSessions;
class KnlctlProxy;

/// Packet capture: takes the manager's and the operators' requests for captures on this host, runs the
/// sessions, tells the manager of their states, and has the files uploaded.
///
/// Requests are served in their order by one thread, because the host's look-ups block; the manager's own
/// thread only parses and queues.
///
/// Threads: `Start` and `Stop` by the owner, one after the other; the others from any thread.
class PktCapApp {
 public:
  static constexpr size_t kMostRequests = 64;

  explicit PktCapApp(AsioZemProvider& provider, CaptureTools tools = {});
  ~PktCapApp();
  PktCapApp(const PktCapApp&) = delete;
  PktCapApp& operator=(const PktCapApp&) = delete;

  [[nodiscard]] bool Start();
  /// Ends all sessions; no tool, pipe or temporary file is left.
  void Stop();
  bool running() const { return running_; }

  /// The sessions with their requests.
  std::vector<SessionView> List() const;
  std::optional<SessionView> Find(const std::string& id) const;

  /// Gets the session, or an error's text; nothing is said when the application stops meanwhile.
  using Started = std::function<void(std::string error, std::optional<SessionView> session)>;
  /// Starts a session for an operator: its file goes to `destination`, and the manager does not hear of it.
  void StartLocal(const std::string& id, const orlane::zem::packetcapture::PktCapRequestMsg& request,
                  const std::string& destination, Started started);
  /// Ends an operator's or the manager's session.  False when there is none.
  [[nodiscard]] bool StopLocal(const std::string& id);

  /// Runs `work` on a thread that may block for some seconds, also while the application does not run.  False
  /// when too much waits there.
  [[nodiscard]] bool RunAside(std::function<void()> work);
  /// Set when that work has to end.
  const std::atomic<bool>* aside_stop() const { return &aside_stop_; }
  const CaptureTools& tools() const { return tools_; }

 private:
  /// A message of the manager that is to be answered.
  struct Request {
    std::string correlation_id;
    std::string reply_to;
  };
  enum class Kind { kReply, kRequest };
  using Answer = std::function<void(const SessionStatus&)>;

  bool Receive(const VerticalRecord& record);
  void LogRecord(const VerticalRecord& record) const;
  void Dispatch(const Request& request, const orlane::zem::packetcapture::PktCapOperationMsg& operation);
  void AnswerQuery(const Request& request, const orlane::zem::packetcapture::PktCapQueryMsg& query);
  void StartSession(const std::string& id, const orlane::zem::packetcapture::PktCapRequestMsg& request,
                    const std::string* destination, const Answer& answer);
  size_t CountTools();
  void Reply(const Request& request, const SessionStatus& status);
  void Report(const SessionStatus& status);
  void Send(Kind kind, const Request& context,
            const orlane::zem::packetcapture::PktCapHostToManagerMsg& message);

  const CaptureTools tools_;
  CaptureParameters::Host host_;  // written by Start, before requests arrive
  VerticalClient vertical_;
  const std::unique_ptr<CaptureSessions> sessions_;
  std::unique_ptr<KnlctlProxy> proxy_;
  std::unique_ptr<TaskThread> requests_;
  std::unique_ptr<TaskThread> aside_;
  std::once_flag aside_started_;
  std::atomic<bool> aside_stop_{false};
  std::atomic<bool> running_{false};
};

}  // namespace Tarvik
}  // namespace zem
