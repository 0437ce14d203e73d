#include "sim/sinks/health_sink.h"

#include <boost/endian/conversion.hpp>

#include "proto/sha/sha.pb.h"

namespace zem::sim {
namespace {

constexpr size_t kMaxDatagram = size_t{64} * 1024;
constexpr size_t kLengthSize = 4;
constexpr int kUp = 1;

}  // namespace

HealthSink::HealthSink(const std::string& path)
    : socket_({.path = path, .thread_name = "health-sink", .max_datagram = kMaxDatagram},
              [this](std::string_view datagram) { Take(datagram.data(), datagram.size()); }) {}

void HealthSink::Take(const char* data, size_t size) {
  orlane::zem::sha::AgentReportMsg report;
  const bool whole =
      size >= kLengthSize &&
      boost::endian::load_big_u32(reinterpret_cast<const unsigned char*>(data)) == size - kLengthSize;
  std::lock_guard lock(mutex_);
  if (!whole || !report.ParseFromArray(data + kLengthSize, static_cast<int>(size - kLengthSize))) {
    ++health_.unparsable;
    return;
  }
  if (report.pid() != health_.pid) {
    last_sequence_ = 0;  // the process was restarted
    health_.pid = report.pid();
  }
  health_.known = true;
  health_.agent = report.agent();
  if (report.sequence() > last_sequence_ + 1) health_.missed += report.sequence() - last_sequence_ - 1;
  last_sequence_ = report.sequence();
  last_heard_ = Clock::Process().Now();
  if (report.has_heartbeat()) {
    ++health_.heartbeats;
    stale_after_ = std::chrono::seconds(report.heartbeat().stale_after_s());
  }
  if (!report.has_metric()) return;
  ++health_.metrics;
  for (const auto& part : report.metric().agents_metrics().status_data().sub_status()) {
    if (part.name() == "tarvik-proxy-connection") health_.proxy_status = part.status() == kUp ? "up" : "down";
  }
}

HealthSink::Health HealthSink::health() const {
  std::lock_guard lock(mutex_);
  Health health = health_;
  health.stale = health.known && Clock::Process().Now() - last_heard_ > stale_after_;
  return health;
}

}  // namespace zem::sim
