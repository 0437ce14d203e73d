#include "framework/cli/cli_server.h"

#include <openvswitch/list.h>
#include <openvswitch/poll-loop.h>
#include <openvswitch/util.h>
#include <openvswitch/vlog.h>
#include <sys/eventfd.h>
#include <unixctl.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "framework/cli/cli_reply_queue.h"
#include "framework/log/log.h"
#include "platform/core/clock.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/unique_fd.h"
#include "platform/provider/work_group.h"

// The library keeps its command table for the life of the process, so what it is given to call must not
// belong to one server: every command is registered with the same function, which finds the server of its
// thread and looks the command up in that server's own table.
//
// An answer that comes later is sent by the loop.  The library frees a connection only when reading or
// writing fails, and it does neither while a request is open and nothing waits to be written; a later answer
// is therefore allowed only on a connection without unsent bytes.

extern "C" {
struct json;
struct jsonrpc;
void jsonrpc_close(struct jsonrpc*);
size_t jsonrpc_get_backlog(const struct jsonrpc*);
void fatal_signal_init(void);

// As the library has it.
struct unixctl_conn {
  struct ovs_list node;
  struct jsonrpc* rpc;
  struct json* request_id;
};
}

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

constexpr std::array kLibrarySignals = {SIGTERM, SIGINT, SIGHUP, SIGALRM, SIGSEGV};

constexpr int kAcceptPauseMs = 100;

constexpr const char* kProductVersion = "2.3";
constexpr const char* kNoAnswer = "The command gave no answer";
constexpr const char* kBusy = "The answer before is not yet taken, try again";

thread_local CliServer* server_of_thread = nullptr;

std::string& Path() {
  static std::string path;
  return path;
}

}  // namespace

CliReply::~CliReply() {
  if (queue_ != nullptr) Error(kNoAnswer);
}

void CliReply::Give(bool ok, std::string text) {
  if (queue_ == nullptr) return;
  queue_->Add({request_, ok, std::move(text)});
  queue_ = nullptr;
}

CliServer::CliServer(boost::intrusive_ptr<WorkGroup> work_group, std::string path)
    : work_group_(std::move(work_group)), replies_(std::make_shared<CliReplyQueue>()) {
  PrepareLibrary();
  Path() = std::move(path);
  ZLOG_INFO("Tarvik cli socket %s", Path().c_str());
}

CliServer::~CliServer() = default;

const std::string& CliServer::SocketPath() { return Path(); }

// Without this the library would log by itself, for which it opens syslog anew without the process id, and
// would take over the signals that end this daemon.
void CliServer::PrepareLibrary() {
  static const bool once = [] {
    ovs_set_program_name("zem-tarvik", kProductVersion);
    vlog_set_syslog_method("null");
    vlog_set_levels(nullptr, VLF_CONSOLE, VLL_OFF);
    std::array<struct sigaction, kLibrarySignals.size()> before;
    for (size_t i = 0; i < kLibrarySignals.size(); ++i) ::sigaction(kLibrarySignals[i], nullptr, &before[i]);
    fatal_signal_init();
    for (size_t i = 0; i < kLibrarySignals.size(); ++i) ::sigaction(kLibrarySignals[i], &before[i], nullptr);
    return true;
  }();
  static_cast<void>(once);
}

void CliServer::Reply(unixctl_conn* connection, const char* text) { unixctl_command_reply(connection, text); }

void CliServer::ReplyError(unixctl_conn* connection, const char* text) {
  unixctl_command_reply_error(connection, text);
}

void CliServer::AddCommands(std::vector<CliCommand> commands) {
  {
    std::lock_guard lock(mutex_);
    for (CliCommand& command : commands) {
      std::string name = command.name;
      if (commands_.try_emplace(name, std::move(command)).second) unregistered_.push_back(std::move(name));
    }
  }
  replies_->Wake();
}

void CliServer::Start() {
  ZLOG_DEBUG("Start running cli server");
  const boost::intrusive_ptr<CliServer> self(this);
  if (!work_group_->Enqueue(MakeWorkItem([self] { self->Run(); }))) {
    ZLOG_ERROR("OPS00302", "Cannot create Tarvik unixctl server: %s", std::strerror(ECANCELED));
  }
}

void CliServer::Stop() {
  std::lock_guard lock(mutex_);
  stopping_ = true;
  if (!running_) return;
  running_ = false;
  // Under the mutex, so that the loop cannot take the socket away before it is used.
  jsonrpc* client = nullptr;
  if (unixctl_client_create(Path().c_str(), &client) != 0) {
    ZLOG_ERROR("OPS00301", "unixctl client create failed");
    replies_->Wake();
    return;
  }
  jsonrpc_close(client);
}

bool CliServer::running() const {
  std::lock_guard lock(mutex_);
  return running_;
}

void CliServer::Run() {
  if (const int error = unixctl_server_create(Path().c_str(), &server_); error != 0) {
    ZLOG_ERROR("OPS00302", "Cannot create Tarvik unixctl server: %s", std::strerror(error));
    return;
  }
  const LoopThread loop("commands", LoopKind::kPrompt);
  server_of_thread = this;
  replies_->Open();
  RegisterNewCommands();
  {
    std::lock_guard lock(mutex_);
    running_ = !stopping_;
  }
  Serve();
  replies_->Close();
  pending_.clear();
  server_of_thread = nullptr;
  unixctl_server_destroy(server_);
  server_ = nullptr;
  ZLOG_INFO("Cli server terminated");
}

void CliServer::Serve() {
  for (;;) {
    RegisterNewCommands();
    unixctl_server_run(server_);
    SendReplies();
    if (!running()) return;
    if (MayAccept()) {
      unixctl_server_wait(server_);
    } else {
      poll_timer_wait(kAcceptPauseMs);
    }
    poll_fd_wait(replies_->wake_fd(), POLLIN);
    Clock::Process().EndWork();
    poll_block();
    Clock::Process().BeginWork();
    replies_->ClearWake();
  }
}

// Without a free descriptor the library cannot take the connection that is waiting, and would be woken for it
// again at once.
bool CliServer::MayAccept() {
  const UniqueFd probe(::eventfd(0, EFD_CLOEXEC));
  const int error = probe ? 0 : errno;
  if (error != 0 && !accept_paused_) {
    ZLOG_WARN("CliServer: no connection can be taken (%s), asking again every %d ms", std::strerror(error),
              kAcceptPauseMs);
  } else if (error == 0 && accept_paused_) {
    ZLOG_INFO("CliServer: connections can be taken again");
  }
  accept_paused_ = error != 0;
  return !accept_paused_;
}

void CliServer::RegisterNewCommands() {
  std::lock_guard lock(mutex_);
  for (const std::string& name : std::exchange(unregistered_, {})) {
    const CliCommand& command = commands_.at(name);
    unixctl_command_register(command.name, command.usage, command.min_arguments, command.max_arguments,
                             &CliServer::Dispatch, nullptr);
  }
}

void CliServer::Dispatch(unixctl_conn* connection, int argc, const char* argv[], void*) {
  server_of_thread->Handle(connection, argv[0], CliArguments(argv + 1, argv + argc));
}

void CliServer::Handle(unixctl_conn* connection, const char* name, const CliArguments& arguments) {
  const CliCommand* command = nullptr;
  {
    std::lock_guard lock(mutex_);
    const auto found = commands_.find(std::string_view(name));
    if (found != commands_.end()) command = &found->second;  // rows are never taken away
  }
  if (command == nullptr) {
    ReplyError(connection, ("\"" + std::string(name) + "\" is not a valid command").c_str());
    return;
  }
  const uint64_t request = ++last_request_;
  pending_.emplace(request, connection);
  try {
    const LoopStep step(command->name);
    command->handler(arguments, CliReply(replies_, request));
  } catch (const std::exception& e) {
    ZLOG_ERROR("OPS00302", "CliServer: command %s failed: %s", name, e.what());
    if (pending_.erase(request) != 0) ReplyError(connection, e.what());
    return;
  }
  SendReplies();
  if (jsonrpc_get_backlog(connection->rpc) > 0 && pending_.erase(request) != 0) ReplyError(connection, kBusy);
}

void CliServer::SendReplies() {
  for (const CliReplyQueue::Answer& answer : replies_->Take()) {
    const auto found = pending_.find(answer.request);
    if (found == pending_.end()) continue;
    unixctl_conn* const connection = found->second;
    pending_.erase(found);
    if (answer.ok) {
      Reply(connection, answer.text.c_str());
    } else {
      ReplyError(connection, answer.text.c_str());
    }
  }
}

}  // namespace zem::Tarvik
