#include "tests/world/world_alarms.h"

#include <set>
#include <utility>

namespace zem::world {
namespace {

// Events of one feature share a report, which names one source: each client has a feature of its own.
constexpr uint32_t kFirstFeature = 40;
constexpr uint64_t kEvents = 3;
constexpr uint64_t kEntities = 5;

std::string Entity(uint64_t number) { return "ee000000-0000-4000-8000-00000000000" + std::to_string(number); }

}  // namespace

WorldAlarms::WorldAlarms(sim::Manager& manager, Pick pick) : pick_(std::move(pick)), collector_(manager) {
  for (size_t i = 0; i < kClients; ++i) Start(i);
  status_ = std::make_unique<sim::StatusClient>();
}

void WorldAlarms::Start(size_t number) {
  sim::AlarmClient::Options options;
  options.kind = number % 2 == 0 ? sim::AlarmClient::Kind::kServing : sim::AlarmClient::Kind::kSubscribing;
  options.source_id = "source-" + std::to_string(number);
  options.feature_id = kFirstFeature + static_cast<uint32_t>(number);
  clients_[number] = std::make_unique<sim::AlarmClient>(std::move(options));
}

void WorldAlarms::RaiseOrClear() {
  const auto& client = clients_[pick_(kClients)];
  if (!client) return;
  const sim::AlarmClient::Key key{static_cast<uint32_t>(1 + pick_(kEvents)), Entity(pick_(kEntities))};
  if (pick_(2) == 0) {
    client->Raise(key, "{\"n\":" + std::to_string(pick_(100)) + "}");
  } else {
    client->Clear(key);
  }
}

void WorldAlarms::ReportStatus() {
  if (pick_(8) == 0) return status_->SendHeartbeat();
  status_->Set("feature-" + std::to_string(pick_(50)), std::to_string(pick_(1000)));
}

void WorldAlarms::ClientGoesOrComes() {
  const size_t number = pick_(kClients);
  if (!clients_[number]) return Start(number);
  if (pick_(2) == 0) {
    clients_[number]->Reconnect();
  } else {
    clients_[number].reset();
  }
}

void WorldAlarms::ClientMisbehaves() {
  using Fault = sim::AlarmClient::Fault;
  constexpr std::array kFaults = {Fault::kNone,      Fault::kSilent,    Fault::kLate, Fault::kDoubled,
                                  Fault::kUnknownId, Fault::kWrongType, Fault::kBare};
  const auto& client = clients_[pick_(kClients)];
  if (client) client->SetFault(kFaults[pick_(kFaults.size())]);
}

void WorldAlarms::CollectorMisanswers() {
  using Answers = sim::Collector::Answers;
  constexpr std::array kAnswers = {Answers::kTrue,    Answers::kTrue,   Answers::kFalse,      Answers::kNever,
                                   Answers::kGarbage, Answers::kNoType, Answers::kUnknownType};
  collector_.SetAnswers(kAnswers[pick_(kAnswers.size())]);
}

void WorldAlarms::Calm() {
  collector_.SetAnswers(sim::Collector::Answers::kTrue);
  for (size_t i = 0; i < kClients; ++i) {
    if (!clients_[i]) {
      Start(i);
      continue;
    }
    clients_[i]->SetFault(sim::AlarmClient::Fault::kNone);
    // One that said nothing when it was asked is asked again when it comes again.
    clients_[i]->Reconnect();
  }
}

std::vector<std::string> WorldAlarms::Check() const {
  const sim::Collector::State state = collector_.state();
  std::vector<std::string> lines = state.violations;
  if (state.busy) lines.push_back("the collector still has questions");
  std::set<std::string> open;
  for (const auto& [key, instance] : state.open) {
    open.insert(std::to_string(std::get<0>(key)) + "/" + std::to_string(std::get<1>(key)) + "/" +
                std::get<2>(key) + " " + instance.context);
  }
  std::set<std::string> raised;
  for (size_t i = 0; i < kClients; ++i) {
    const sim::AlarmClient::State client = clients_[i]->state();
    lines.insert(lines.end(), client.violations.begin(), client.violations.end());
    for (const auto& [key, context] : client.raised) {
      raised.insert(std::to_string(kFirstFeature + i) + "/" + std::to_string(key.first) + "/" + key.second +
                    " " + context);
    }
    if (state.sources.count("source-" + std::to_string(i)) == 0)
      lines.push_back("the collector does not know source-" + std::to_string(i));
  }
  for (const std::string& event : raised) {
    if (open.count(event) == 0) lines.push_back("raised, and not open at the collector: " + event);
  }
  for (const std::string& event : open) {
    if (raised.count(event) == 0) lines.push_back("open at the collector, and not raised: " + event);
  }
  if (!status_->state().registered) lines.push_back("the status source is not registered");
  return lines;
}

}  // namespace zem::world
