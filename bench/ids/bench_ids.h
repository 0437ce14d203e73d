#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>

#include "app/ctxteng/idsevents/ids_services.h"

namespace zem::bench {

using SteadyClock = std::chrono::steady_clock;

inline double Seconds(SteadyClock::time_point begin) {
  return std::chrono::duration<double>(SteadyClock::now() - begin).count();
}

/// A line whose figure is better when it is larger.
inline void MoreIsBetter(const char* name, const char* metric, double ours, double peer) {
  std::printf("ids %s %s ours=%.0f peer=%.0f ratio=%.2f\n", name, metric, ours, peer, ours / peer);
}
/// A line whose figure is better when it is smaller.
inline void LessIsBetter(const char* name, const char* metric, double ours, double peer) {
  std::printf("ids %s %s ours=%.3f peer=%.3f ratio=%.2f\n", name, metric, ours, peer, peer / ours);
}

/// The least of `rounds` measurements.
template <class Measure>
double Best(int rounds, Measure measure) {
  double best = measure();
  for (int round = 1; round < rounds; ++round) best = std::min(best, measure());
  return best;
}

/// An intrusion detection client without Kafka.
class PlainServices : public IdsEvtEng::IIdsServices {
 public:
  bool IsKafkaReady() override { return false; }
  int SendKafkaEvent(const orlane::zem::context::ids::EventInfoMsg&) override { return -1; }
  int SendKafkaPcap(const orlane::zem::context::ids::PcapInfoMsg&) override { return -1; }
  bool GetTnUuid(orlane::zem::UuidMsg*) override { return false; }
  void GetSiteId(orlane::zem::UuidMsg*) override {}
  bool FillTenantContext(uint32_t, orlane::zem::TenantContextMsg*) override { return false; }
  std::string GetTenantString(uint32_t) override { return ""; }
  bool IsEnabled() override { return true; }
  bool IsExternalLoggingEnabled() override { return false; }
  bool IsPcapEnabled() override { return true; }
};

/// `number` makes the alert different from the others.  About 900 bytes.
std::string AlertLine(uint32_t number);

void RunConsumer(int rounds);
void RunLimiter(int rounds);
void RunBatches(int rounds);
void RunCaptures(int rounds);
void RunReplacement(int rounds);
void RunRoad(int rounds);

}  // namespace zem::bench
