// A round of the sender: alerts out of the queue, merged and built into messages, against what the
// serialization of those messages costs alone.

#include <stdexcept>
#include <vector>

#include "app/ctxteng/idsevents/event_senders.h"
#include "app/ctxteng/idsevents/ids_counters.h"
#include "app/ctxteng/idsevents/intake.h"
#include "app/ctxteng/idsevents/roads.h"
#include "app/ctxteng/idsqueue/interruption.h"
#include "app/ctxteng/idsrecord/event_reader.h"
#include "app/ctxteng/idsrecord/json_line.h"
#include "bench/ids/bench_ids.h"
#include "proto/context/ids.pb.h"

namespace zem::bench {
namespace {

using namespace IdsEvtEng;
using orlane::zem::context::ids::EventInfoMsg;
using orlane::zem::context::ids::PcapInfoMsg;

// Keeps the messages.
class KeepingRoad final : public Road {
 public:
  void Send(std::shared_ptr<EventInfoMsg> message, uint64_t) override {
    messages.push_back(std::move(message));
  }
  void Send(std::shared_ptr<PcapInfoMsg>) override {}
  RoadCounters& event_counters() override { return counters; }
  RoadCounters& pcap_counters() override { return counters; }
  size_t most_bytes() const override { return size_t{8} << 20; }

  RoadCounters counters;
  std::vector<std::shared_ptr<EventInfoMsg>> messages;
};

class Round {
 public:
  Round() { param_.criticalQSize = 65534; }

  // Seconds of building, and of serializing what was built.
  std::pair<double, double> Run(const std::vector<IdsEvent>& events) {
    IdsCounters counters;
    Intake intake(param_, files_, counters);
    KeepingRoad road;
    EventSenders senders(param_, intake, road, road, services_,
                         {[](uint32_t) { return std::nullopt; },
                          [](uint32_t, orlane::zem::TenantContextMsg*) { return false; }},
                         interruption_);
    for (const IdsEvent& event : events) intake.AddEvent(std::make_unique<IdsEvent>(event));
    const auto begin = SteadyClock::now();
    senders.SendBatch(Class::kCritical);
    const double building = Seconds(begin);
    const auto serialize = SteadyClock::now();
    size_t bytes = 0;
    std::string text;
    for (const auto& message : road.messages) {
      message->SerializeToString(&text);
      bytes += text.size();
    }
    const double serializing = Seconds(serialize);
    if (bytes == 0) throw std::runtime_error("nothing was built");
    return {building, serializing};
  }

 private:
  IdsParam param_;
  PlainServices services_;
  Interruption interruption_;
  const CaptureFiles files_{"/nowhere", interruption_};
};

void Run(const char* name, const std::vector<IdsEvent>& events, int rounds) {
  std::pair<double, double> best{1e9, 1e9};
  Round round;
  for (int i = 0; i < rounds * 3; ++i) {
    const auto [building, serializing] = round.Run(events);
    best = {std::min(best.first, building), std::min(best.second, serializing)};
  }
  LessIsBetter(name, "ms_against_serialization", best.first * 1e3, best.second * 1e3);
}

std::vector<IdsEvent> Events(uint32_t count, uint32_t distinct) {
  std::vector<IdsEvent> events;
  JsonLine line;
  for (uint32_t i = 0; i < count; ++i) {
    const std::string text = AlertLine(i % distinct);
    if (ReadEventType(text, &line) != kAlertEvent) throw std::runtime_error("no alert");
    events.push_back(*ReadAlert(line));
  }
  return events;
}

}  // namespace

void RunBatches(int rounds) {
  Run("batch-1000-of-100", Events(1000, 100), rounds);
  Run("batch-1000-distinct", Events(1000, 1000), rounds);
  Run("batch-65534-distinct", Events(65534, 65534), rounds);
}

}  // namespace zem::bench
