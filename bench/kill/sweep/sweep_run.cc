#include "bench/kill/sweep/sweep_run.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "bench/build_folder.h"

namespace zem::bench {
namespace {

using sim::Json;
using sim::TextAt;

constexpr auto kQuestion = std::chrono::milliseconds(300);

}  // namespace

std::string Lines(const cJSON* list) {
  std::string text;
  const cJSON* line = nullptr;
  cJSON_ArrayForEach(line, list) {
    char* const shown = cJSON_IsString(line) ? nullptr : cJSON_PrintUnformatted(line);
    text += "\n  " + std::string(shown != nullptr ? shown : line->valuestring);
    cJSON_free(shown);
  }
  return text;
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

std::string SwitchId(int number) { return "502e6b1a-77c0-41aa-9d11-00000000000" + std::to_string(number); }

SweepRun::SweepRun(int clock_factor)
    : node_(BuildFolder() + "/sim/node/zem-node",
            {"--options", ZEM_KILL_FILES "/kill.xml", "--zema", ZEM_KILL_FILES "/sweep.json",
             "--clock-factor", std::to_string(clock_factor)}) {}

void SweepRun::Begin(Background::Work work, std::function<void(const std::string&)> finish) {
  running_.push_back({std::make_unique<Background>(node_.directory(), std::move(work)), std::move(finish)});
}

bool SweepRun::OperationsEnded() const {
  return std::all_of(running_.begin(), running_.end(), [](const Running& each) { return each.work->done(); });
}

void SweepRun::Finish() {
  for (Running& each : std::exchange(running_, {})) each.finish(each.work->End());
}

void SweepRun::Run(const std::string& command) {
  Begin([command](Background::Node& node) { return node.Try(command); },
        [this, command](const std::string& reason) {
          if (!reason.empty()) Insist(command);
        });
}

void SweepRun::Insist(const std::string& command) {
  node_.Await(command, kPatience, [](const cJSON*) { return true; });
}

bool SweepRun::Serves() { return cJSON_IsTrue(sim::At(node_.Do("host-management").get(), "connected")) != 0; }

void SweepRun::AwaitServing() {
  try {
    node_.Await("host-management", kPatience,
                [](const cJSON* state) { return cJSON_IsTrue(sim::At(state, "connected")) != 0; });
  } catch (const std::runtime_error&) {
    const Json state = node_.Do("daemon/state");
    if (cJSON_IsTrue(sim::At(state.get(), "running")) != 0) throw;
    throw std::runtime_error("the daemon ended by itself: " +
                             TextAt(node_.Do("daemon/wait 1").get(), "ended_by"));
  }
}

std::string SweepRun::StoredChecksum() { return checksum_.Ask(kQuestion, kPatience); }

void SweepRun::Restart() {
  Begin(
      [](Background::Node& node) {
        std::string reason = node.Try("daemon/kill KILL");
        if (reason.empty()) reason = node.Try("daemon/wait 100");
        if (reason.empty()) reason = node.Try("daemon/start");
        if (!reason.empty()) return reason;
        return node.Until("host-management",
                          [](const cJSON* state) { return cJSON_IsTrue(sim::At(state, "connected")) != 0; });
      },
      [](const std::string&) {});
}

}  // namespace zem::bench
