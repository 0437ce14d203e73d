#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/core/clock.h"
#include "platform/core/condition.h"
#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"

namespace zem::sim {

/// The host management daemon: its socket, and the port operations that it requests over it.  It keeps the
/// requests that have not been answered, and records each answer that matches no request.
///
/// Threads: all operations from any thread.
class HostManagement {
 public:
  static constexpr const char* kSocket = "/run/orlane/opaquenetwork_corvd_service";

  explicit HostManagement(std::string path = kSocket);
  ~HostManagement();

  /// Closes the socket and all connections.  Calling it twice has no effect.
  void Stop();
  /// Listens, if it does not listen already.  Throws std::system_error.
  void Start();
  /// Closes the connection; the socket keeps listening.
  void Drop();

  struct State {
    bool listening = false;
    bool connected = false;
    bool reading = true;
    uint64_t connections = 0;
  };
  State state() const;

  struct Operation {
    uint32_t opcode = 1;
    std::string op_id;
    std::string vif;
    std::string ls;
    std::string gcf_path;
    uint32_t magic = 0x35AE;
    uint32_t version = 1;
    bool payload = true;
  };
  /// Sends a request, in pieces of `piece` bytes unless that is 0.  Returns false without a connection.
  bool Ask(const Operation& operation, size_t piece = 0);
  /// Sends any bytes.  Returns false without a connection.
  bool SendRaw(std::string_view bytes);
  /// While off, answers are not read and stay in the socket.
  void SetReading(bool on);

  struct Answer {
    std::string op_id;
    uint32_t status = 0;
    /// The text without its terminating zero.
    std::string text;
    uint64_t connection = 0;
    TimePoint at{};
  };
  std::vector<Answer> answers() const;
  /// Waits for the answer to one request.  Returns nothing when the connection ends first or the time is
  /// over.
  std::optional<Answer> WaitForAnswer(const std::string& op_id, TimePoint until) const;
  /// Waits until that many answers have been received.
  bool WaitForAnswers(size_t count, int seconds) const;
  /// Requests on the present connection that have no answer yet.
  std::vector<std::string> outstanding() const;
  /// Protocol errors of the agent: answers to requests of another connection or to none, second answers,
  /// changed headers, broken frames.
  std::vector<std::string> violations() const;

 private:
  void Serve();
  void Accept();
  bool SendTo(const UniqueFd& client, std::string_view bytes);
  void Receive();
  bool TakeFrame();
  void Judge(std::string_view header, std::string_view payload);
  void Wake();
  void CloseClientLocked();

  const std::string path_;
  std::mutex send_mutex_;     // one sender at a time
  mutable std::mutex mutex_;  // guards what follows
  UniqueFd listener_;
  UniqueFd wake_;
  std::shared_ptr<UniqueFd> client_;  // shared with senders
  std::string received_;
  State state_;
  bool stopping_ = false;
  std::map<std::string, std::string> asked_;  // operation id to request header
  std::set<std::string> answered_;
  std::vector<Answer> answers_;
  std::map<std::string, size_t> last_answers_;  // operation id to index into answers_, since the last request
  std::vector<std::string> violations_;
  mutable Condition answered_changed_;
  NativeThread thread_;
};

}  // namespace zem::sim
