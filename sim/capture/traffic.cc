#include "sim/capture/traffic.h"

#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "platform/core/unique_fd.h"
#include "sim/capture/capture_point.h"

namespace zem::sim::capture {
namespace {

// Sends frames at one device.
class Sender {
 public:
  explicit Sender(const std::string& device) : socket_(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)) {
    address_.sll_family = AF_PACKET;
    address_.sll_ifindex = static_cast<int>(::if_nametoindex(device.c_str()));
    address_.sll_halen = ETH_ALEN;
    if (!socket_ || address_.sll_ifindex == 0) throw std::runtime_error(device + ": " + std::strerror(errno));
  }

  void Send(const std::string& bytes) const {
    while (::sendto(socket_.get(), bytes.data(), bytes.size(), 0,
                    reinterpret_cast<const sockaddr*>(&address_), sizeof(address_)) < 0) {
      // The device's queue is full for a moment.
      if (errno != EINTR && errno != ENOBUFS) throw std::runtime_error(std::strerror(errno));
    }
  }

 private:
  const UniqueFd socket_;
  sockaddr_ll address_{};
};

}  // namespace

uint64_t Traffic::Inject(const std::string& point, const Frame& frame, uint64_t count, bool to_guest) {
  const PointEnds ends = ResolvePoint(point);
  const Sender sender(to_guest ? ends.host : ends.guest);
  const uint64_t first = next_.fetch_add(count);
  for (uint64_t i = 0; i < count; ++i) sender.Send(FrameBytes(frame, first + i));
  return first;
}

void Traffic::StartFlow(const std::string& point, const Frame& frame, unsigned per_second) {
  const PointEnds ends = ResolvePoint(point);
  static_cast<void>(FrameBytes(frame, 0));
  auto flow = std::make_unique<Flow>();
  Flow* const started = flow.get();
  flow->thread =
      NativeThread([this, started, frame, per_second, sender = std::make_shared<Sender>(ends.guest)] {
        const Duration gap = std::chrono::nanoseconds(std::chrono::seconds(1)) / per_second;
        while (!started->stop.WaitFor(gap)) sender->Send(FrameBytes(frame, next_++));
      });
  const std::lock_guard lock(mutex_);
  flows_.push_back(std::move(flow));
}

void Traffic::StopFlows() {
  std::list<std::unique_ptr<Flow>> flows;
  {
    const std::lock_guard lock(mutex_);
    flows.swap(flows_);
  }
  for (const auto& flow : flows) flow->stop.Stop();
  for (const auto& flow : flows) flow->thread.Join();
}

}  // namespace zem::sim::capture
