#pragma once

#include <boost/intrusive_ptr.hpp>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "framework/cli/cli_command.h"
#include "platform/core/ref_counted.h"

struct unixctl_conn;
struct unixctl_server;

namespace zem {

class WorkGroup;

namespace Tarvik {

inline constexpr const char* kCliSocketPath = "/var/run/orlane/zem-tarvik/tarvik-cli";

/// The operators' command socket: speaks the control protocol of the Open vSwitch library and answers from a
/// table to which each application adds its rows.
///
/// Threads: one of the work group, from Start to Stop.  Construct it on the main thread before others start:
/// the library underneath installs signal handlers, which the constructor undoes.
class CliServer : public RefCounted<CliServer, IRefCountable> {
 public:
  explicit CliServer(boost::intrusive_ptr<WorkGroup> work_group, std::string path = kCliSocketPath);
  ~CliServer() override;

  virtual void Reply(unixctl_conn* connection, const char* text);
  virtual void ReplyError(unixctl_conn* connection, const char* text);

  /// Before or after Start, from any thread.  A name that is known already keeps its row.
  void AddCommands(std::vector<CliCommand> commands);

  /// Queues the loop.  A socket that cannot be made leaves the daemon without commands, with an error line.
  void Start();

  /// Ends the loop after the command that runs now; does not wait for it.  From any thread.
  void Stop();

  /// The path of the last server made.
  static const std::string& SocketPath();

 private:
  static void PrepareLibrary();
  static void Dispatch(unixctl_conn* connection, int argc, const char* argv[], void* aux);

  void Run();
  void Serve();
  bool MayAccept();
  void RegisterNewCommands();
  void Handle(unixctl_conn* connection, const char* name, const CliArguments& arguments);
  void SendReplies();
  bool running() const;

  const boost::intrusive_ptr<WorkGroup> work_group_;
  const std::shared_ptr<CliReplyQueue> replies_;

  // Of the loop's thread only.
  unixctl_server* server_ = nullptr;
  bool accept_paused_ = false;
  uint64_t last_request_ = 0;
  std::unordered_map<uint64_t, unixctl_conn*> pending_;

  mutable std::mutex mutex_;  // guards all below
  bool running_ = false;
  bool stopping_ = false;
  std::map<std::string, CliCommand, std::less<>> commands_;
  std::vector<std::string> unregistered_;
};

}  // namespace Tarvik
}  // namespace zem
