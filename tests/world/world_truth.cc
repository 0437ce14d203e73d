#include "tests/world/world_truth.h"

#include <algorithm>
#include <chrono>
#include <sstream>
#include <string_view>
#include <utility>

#include "framework/status/part_state.h"
#include "platform/metrics/process_metrics.h"
#include "platform/timeline/operation.h"
#include "tests/world/world_node.h"

namespace zem::world {
namespace {

using timeline::OperationPtr;
using timeline::OperationReading;
using timeline::State;

// The ring keeps the last 128 failures for sure.
constexpr size_t kKept = 100;
constexpr size_t kMostAlike = 128;
constexpr auto kLongest = std::chrono::minutes(5);

std::string Described(const OperationReading& operation) {
  std::string text = "#" + std::to_string(operation.number) + " " + operation.kind + ", " + operation.what;
  for (const std::string& key : operation.keys) text += " " + key;
  return text;
}

std::vector<OperationReading> Known(const std::string& key) {
  std::vector<OperationReading> readings;
  for (const OperationPtr& each : timeline::Find(key, kMostAlike)) readings.push_back(each->Read());
  return readings;
}

// A metric that only grows: "zem_x_total", and of a histogram all its lines.
bool Counts(const std::string& name, const std::map<std::string, std::string>& types) {
  for (const std::string_view end : {"", "_bucket", "_sum", "_count"}) {
    if (!name.ends_with(end)) continue;
    const auto type = types.find(name.substr(0, name.size() - end.size()));
    if (type != types.end()) return end.empty() ? type->second == "counter" : type->second == "histogram";
  }
  return false;
}

}  // namespace

void WorldTruth::ConfigAnswered(const std::string& id, const std::string& revision, int code) {
  const std::lock_guard lock(mutex_);
  configs_[{id, revision}].insert(code);
}

void WorldTruth::AgentStops() {
  for (const OperationPtr& newest : timeline::Find({}, 1)) given_up_ = newest->number();
}

WorldTruth::Lines WorldTruth::CheckVifAnswers() {
  Lines lines;
  const std::vector<sim::HostManagement::Answer> answers = node_.host_management->answers();
  std::vector<const sim::HostManagement::Answer*> failed;
  std::set<std::string> refused;
  for (size_t i = vif_answers_; i < answers.size(); ++i) {
    if (answers[i].status == 0) continue;
    failed.push_back(&answers[i]);
    refused.insert(answers[i].op_id);
  }
  for (size_t i = vif_answers_; i < answers.size(); ++i) {
    if (refused.contains(answers[i].op_id)) continue;
    for (const OperationReading& each : Known(answers[i].op_id)) {
      if (each.state != State::kFailed) continue;
      lines.push_back(Described(each) +
                      " was answered with success and is told to have failed: " + each.error);
    }
  }
  for (size_t i = failed.size() > kKept ? failed.size() - kKept : 0; i < failed.size(); ++i) {
    const std::vector<OperationReading> known = Known(failed[i]->op_id);
    const bool told = std::ranges::any_of(known, [&](const OperationReading& each) {
      return each.state == State::kFailed && each.error == failed[i]->text;
    });
    if (told) continue;
    lines.push_back("the answer to " + failed[i]->op_id + " is not explained: " + failed[i]->text);
    for (const OperationReading& each : known)
      lines.push_back("  known is " + Described(each) + ": " + each.error);
  }
  if (lines.empty()) vif_answers_ = answers.size();
  return lines;
}

WorldTruth::Lines WorldTruth::CheckConfigAnswers() {
  Lines lines;
  const std::lock_guard lock(mutex_);
  for (const auto& [config, codes] : configs_) {
    std::set<State> states;
    for (const OperationReading& each : Known(config.first)) {
      if (each.what == "of the manager, revision " + config.second) states.insert(each.state);
    }
    for (const int code : codes) {
      if (code < 0 || states.contains(code == 0 ? State::kDone : State::kFailed)) continue;
      lines.push_back("configuration " + config.first + " revision " + config.second + " was answered with " +
                      std::to_string(code) + " and is not explained so");
    }
  }
  if (lines.empty()) configs_.clear();
  return lines;
}

WorldTruth::Lines WorldTruth::CheckUnderWay() const {
  Lines lines;
  for (const OperationPtr& each : timeline::Find({}, SIZE_MAX)) {
    if (each->number() > given_up_ && each->state() == State::kUnderWay && each->age() > kLongest)
      lines.push_back(Described(each->Read()) + " does not end");
  }
  return lines;
}

WorldTruth::Lines WorldTruth::CheckWhy() {
  Lines lines = CheckVifAnswers();
  for (const Lines& more : {CheckConfigAnswers(), CheckUnderWay()})
    lines.insert(lines.end(), more.begin(), more.end());
  return lines;
}

WorldTruth::Lines WorldTruth::CheckStatus() const {
  Lines lines;
  std::vector<Tarvik::PartState> parts;
  node_.Describe(&parts);
  for (const Tarvik::PartState& part : parts) {
    if (!part.fault.empty()) lines.push_back("the status of " + part.part + " is: " + part.fault);
  }
  return lines;
}

bool WorldTruth::IsAtFault(const std::string& name) const {
  std::vector<Tarvik::PartState> parts;
  node_.Describe(&parts);
  return std::ranges::any_of(
      parts, [&](const Tarvik::PartState& part) { return part.part == name && !part.fault.empty(); });
}

WorldTruth::Lines WorldTruth::CheckMetrics() {
  Lines lines;
  metrics::MetricWriter writer;
  writer.WriteProcessFigures();
  std::istringstream text(writer.Text());
  std::map<std::string, std::string> types;
  for (std::string line; std::getline(text, line);) {
    if (line.starts_with("# TYPE ")) {
      const size_t blank = line.rfind(' ');
      types[line.substr(7, blank - 7)] = line.substr(blank + 1);
    }
    const size_t blank = line.rfind(' ');
    if (line.starts_with("#") || blank == std::string::npos) continue;
    if (!Counts(line.substr(0, line.find_first_of("{ ")), types)) continue;
    const double now = std::stod(line.substr(blank + 1));
    double& before = counts_[line.substr(0, blank)];
    if (now < before) lines.push_back(line + " was " + std::to_string(before));
    before = now;
  }
  if (counts_.empty()) lines.push_back("nothing is counted");
  return lines;
}

}  // namespace zem::world
