#include "app/zema/resync/resync_round.h"

#include "app/zema/ports/vif_request.h"
#include "app/zema/resync/resync_gate.h"
#include "app/zema/state/health_record.h"
#include "app/zema/vifqueue/resync_state.h"
#include "app/zema/vifqueue/vif_handler.h"
#include "framework/log/log.h"
#include "framework/node/host_identity.h"
#include "framework/process/command.h"
#include "framework/process/script_child.h"
#include "framework/tasks/task_thread.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "ResyncThread";

constexpr Duration kKillLimit = std::chrono::seconds(30);

long SecondsSince(TimePoint begin) {
  return static_cast<long>((Clock::Process().Now() - begin) / std::chrono::seconds(1));
}

}  // namespace

void ResyncRound::Resync(int interval, bool vm_check, Duration limit) {
  ZLOG_INFO("[%s] checking for out-of-sync host local attachment/detachment...\n", kTag);
  std::string output;
  std::string error;
  if (Shell(Tarvik::KillByNameCommand("resync.py", "-9"), kKillLimit, &output, &error) < 0) output += error;
  ZLOG_INFO("terminating prior resync.py process: [%s]", output.c_str());

  const std::string command =
      std::string("python ") + kScript + " " + std::to_string(interval) + (vm_check ? " 1" : " 0") + " 2>&1";
  if (!gate_.MayGoOn()) {
    ZLOG_INFO("[%s] resync is disabled; skip cmd [%s]", kTag, command.c_str());
    return;
  }
  std::string text;
  const bool succeeded = RunScript(command, limit, &text);
  const ResyncReply reply(text);
  // The output of a script that failed is ignored.
  if (!succeeded || reply.kind() == ResyncReply::Kind::kUseless) {
    ZLOG_ERROR("42045", "[%s] sync command returned unexpected reply: [%s]", kTag, text.c_str());
    return;
  }
  if (reply.kind() == ResyncReply::Kind::kNothingToDo) {
    ZLOG_INFO("[%s] sync command returned ok, nothing need to be synchronized.\n", kTag);
    return;
  }
  if (!settings_.host->id()) {
    ZLOG_ERROR("42038", "[%s] Cannot do sync attach/detach with unset host ID", kTag);
    return;
  }
  Commands attachments;
  Commands detachments;
  if (!Sort(reply, &attachments, &detachments)) return;
  ZLOG_INFO("[%s] synchronizing [%lu] host local detachment to MP...\n", kTag,
            static_cast<unsigned long>(detachments.size()));
  SyncVnicDetachment(detachments);
  ZLOG_INFO("[%s] synchronizing [%lu] host local attachment to MP...\n", kTag,
            static_cast<unsigned long>(attachments.size()));
  SyncVnicAttachment(attachments);
}

// A script that hangs ends with its time, or with the agent.
int ResyncRound::Shell(const std::string& command, Duration limit, std::string* output, std::string* error) {
  if (settings_.command) return settings_.command(command, output);
  return Tarvik::Util::ReadCmdOutput(command, output, error, {limit, gate_.stop_fd()});
}

bool ResyncRound::RunScript(const std::string& command, Duration limit, std::string* reply) {
  ZLOG_INFO("[%s] executing [%s] ...\n", kTag, command.c_str());
  const TimePoint begin = Clock::Process().Now();
  std::string error;
  const int result = Shell(command, limit, reply, &error);
  if (result != 0) {
    ZLOG_TO(kLog, kLogError, "ExecuteCmd(%s) failed: ret:[%d], errno:[%s], reply:[%s]", command.c_str(),
            result, error.c_str(), reply->c_str());
  }
  ZLOG_INFO("[%s] sync command took [%ld] sec, reply: [%s]\n", kTag, SecondsSince(begin), reply->c_str());
  return result == 0;
}

bool ResyncRound::MayGoOn() {
  if (gate_.MayGoOn() && settings_.health->mpa_connected()) return true;
  ZLOG_INFO("[%s] abort resync because it is disabled or MP to MPA connectivity is down", kTag);
  return false;
}

bool ResyncRound::Overtaken(const ResyncCommand& command) {
  const auto noted = settings_.state->Noted(command.ls_id, command.vif_id);
  if (!noted) return false;
  ZLOG_INFO("%s Skip sync operation for vif id %s logical segment %s %s", kTag, command.vif_id.c_str(),
            command.ls_id.c_str(), noted->c_str());
  return true;
}

bool ResyncRound::Sort(const ResyncReply& reply, Commands* attachments, Commands* detachments) {
  for (const std::string_view text : reply.commands()) {
    if (!MayGoOn()) return false;
    auto command = ResyncReply::Parse(text);
    if (!command || Overtaken(*command)) continue;
    const bool attach = command->operation == ResyncCommand::Operation::kAttach;
    ZLOG_INFO("[%s] op:[%s] %s\n", kTag, attach ? "attach" : "detach", command->text.c_str());
    (attach ? attachments : detachments)->push_back(std::move(*command));
  }
  return true;
}

void ResyncRound::SyncVnicDetachment(const Commands& detachments) {
  Sync(detachments, "sync-detach-", VifRequest::kSyncDetach,
       [](const std::string& text, const std::string& error) {
         ZLOG_ERROR("42047", "[%s] unable to sync attachment [%s]: %s\n", kTag, text.c_str(), error.c_str());
       });
}

void ResyncRound::SyncVnicAttachment(const Commands& attachments) {
  Sync(attachments, "sync-attach-", VifRequest::kSyncAttach,
       [](const std::string& text, const std::string& error) {
         ZLOG_ERROR("42046", "[%s] unable to sync attachment [%s]: %s\n", kTag, text.c_str(), error.c_str());
       });
}

// The operations need a thread whose monitor they hold; it is never started.  An earlier command may have
// taken long, so each one is checked again right before it is carried out.
template <class Report>
void ResyncRound::Sync(const Commands& commands, const char* name, int kind, const Report& report) {
  Thread waiter(true, nullptr, 0);
  for (size_t i = 0; i < commands.size(); ++i) {
    const ResyncCommand& command = commands[i];
    ZLOG_INFO("[%s] %.11s: %s\n", kTag, name, command.text.c_str());
    if (command.vif_id.empty()) {
      ZLOG_ERROR("42041", "[%s] expecting VIF UUID\n", kTag);
      continue;
    }
    if (!MayGoOn()) break;
    if (Overtaken(command)) continue;
    VifRequest request;
    request.op_id = name + std::to_string(i);
    request.op_code = kind;
    request.vif_id = command.vif_id;
    request.ls_id = command.ls_id;
    request.gcf_path = command.gcf_path;
    request.port_id = command.port_id;
    request.BeginTimeline();
    try {
      const timeline::Scope scope(request.carried.operation());
      const MonitorLock monitor(waiter);
      vif_handler_.DoVifPortOperation(request, waiter);
    } catch (const std::exception& e) {
      if (request.error_text.empty()) request.error_text = e.what();
    }
    timeline::Finish(request.carried.operation(), request.error_text);
    if (!request.error_text.empty()) {
      report(command.text, request.error_text);
    } else {
      ZLOG_INFO("[%s] synchronized host local attachment [%s] with MP\n", kTag, command.text.c_str());
    }
  }
}

}  // namespace zem::zema
