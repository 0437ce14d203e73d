#include "sim/service/service_commands.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "platform/core/unique_fd.h"
#include "sim/control/command_table.h"
#include "sim/control/number.h"
#include "sim/service/service_manager.h"

namespace zem::sim {
namespace {

constexpr uint32_t kMostSeconds = 3600;

Json StateJson(const ServiceManager::State& state) {
  Json json = JsonObject();
  AddMember(json.get(), "pid", state.pid);
  AddMember(json.get(), "ready", state.ready);
  AddMember(json.get(), "status", state.status);
  AddMember(json.get(), "fed", state.fed);
  AddMember(json.get(), "longest_pause_ms",
            static_cast<int64_t>(
                std::chrono::duration_cast<std::chrono::milliseconds>(state.longest_pause).count()));
  AddMember(json.get(), "restarts", state.restarts);
  AddMember(json.get(), "status_before_restart", state.status_before_restart);
  AddMember(json.get(), "foreign", state.foreign);
  return json;
}

}  // namespace

void RegisterServiceCommands(CommandTable& table, ServiceManager& service) {
  table.Register(
      {"state", "", "Shows what the daemon told: ready, status, how often it fed the watchdog.", 0, 0,
       [&service](const Arguments&, const Reply& reply) { reply.Ok(StateJson(service.state())); }});
  table.Register(
      {"watchdog", "SECONDS|off",
       "The daemon's next starts have a watchdog: silent for that long it is killed and restarted.", 1, 1,
       [&service](const Arguments& arguments, const Reply& reply) {
         const auto seconds = NumberOf<uint32_t>(arguments[0] == "off" ? "0" : arguments[0]);
         if (!seconds || *seconds > kMostSeconds) return reply.Fail("up to 3600 seconds, or off");
         service.SetWatchdog(std::chrono::seconds(*seconds));
         reply.Ok();
       }});
  table.Register(
      {"block", "PATH",
       "Puts a pipe without a reader at a path: whoever opens it to write hangs, until \"unblock\".", 1, 1,
       [](const Arguments& arguments, const Reply& reply) {
         if (::mkfifo(arguments[0].c_str(), 0600) < 0) return reply.Fail(std::strerror(errno));
         reply.Ok();
       }});
  table.Register({"unblock", "PATH", "Takes the pipe away, and lets go who hangs at it.", 1, 1,
                  [](const Arguments& arguments, const Reply& reply) {
                    const UniqueFd reader(::open(arguments[0].c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
                    if (!reader || ::unlink(arguments[0].c_str()) < 0)
                      return reply.Fail(std::strerror(errno));
                    reply.Ok();
                  }});
}

}  // namespace zem::sim
