#include "sim/node/health_sink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/endian/conversion.hpp>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <vector>

#include "proto/sha/sha.pb.h"

namespace zem::sim {
namespace {

constexpr size_t kMaxDatagram = 64 * 1024;
constexpr size_t kLengthSize = 4;
constexpr int kUp = 1;

}  // namespace

HealthSink::HealthSink(const std::string& path) : path_(path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path))
    throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
  std::memcpy(address.sun_path, path.data(), path.size());
  socket_.Reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ::unlink(path.c_str());
  if (::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
    throw std::system_error(errno, std::generic_category(), "bind " + path);
  }
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) < 0) throw std::system_error(errno, std::generic_category(), "pipe");
  stop_read_.Reset(ends[0]);
  stop_write_.Reset(ends[1]);
  Thread::Options options;
  options.name = "health-sink";
  options.counts_as_work = false;
  thread_ = Thread(std::move(options), [this] { Receive(); });
}

HealthSink::~HealthSink() {
  stop_write_.Reset();
  thread_.Join();
  ::unlink(path_.c_str());
}

void HealthSink::Receive() {
  std::vector<char> buffer(kMaxDatagram);
  for (;;) {
    pollfd fds[] = {{socket_.get(), POLLIN, 0}, {stop_read_.get(), POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0 && errno != EINTR) return;
    if (fds[1].revents != 0) return;
    const ssize_t size = ::recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size > 0) Take(buffer.data(), static_cast<size_t>(size));
  }
}

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
    last_sequence_ = 0;  // another life of the process
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
