#include "sim/service/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>

#include "platform/core/unique_fd.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "sim/sandbox/daemon_process.h"

namespace zem::sim {
namespace {

constexpr const char* kSocket = "/run/zem-service-notify";
constexpr size_t kMaxDatagram = 4096;
constexpr auto kLookPeriod = std::chrono::milliseconds(250);
constexpr auto kDeath = std::chrono::seconds(10);

int Bind() {
  UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, kSocket, sizeof(address.sun_path) - 1);
  ::unlink(kSocket);
  const int on = 1;
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0 ||
      ::setsockopt(socket.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) < 0) {
    throw std::system_error(errno, std::generic_category(), kSocket);
  }
  return socket.Release();
}

}  // namespace

ServiceManager::ServiceManager(AsioZemProvider& provider, DaemonProcess& daemon)
    : daemon_(daemon), socket_(provider.io(), Bind()) {
  daemon_.SetEnvironment("NOTIFY_SOCKET", kSocket);
  timer_ = provider.timers().ScheduleRepeated(
      kLookPeriod, [this] { Look(); }, TimerOptions::Default);
  Wait();
}

// The provider has stopped before.
ServiceManager::~ServiceManager() { timer_->Cancel(); }

void ServiceManager::SetWatchdog(Duration timeout) {
  const std::lock_guard lock(mutex_);
  watchdog_ = timeout;
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(timeout).count();
  daemon_.SetEnvironment("WATCHDOG_USEC", us == 0 ? "" : std::to_string(us));
}

ServiceManager::State ServiceManager::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

void ServiceManager::Wait() {
  socket_.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                     [this](const boost::system::error_code& error) {
                       if (error) return;
                       Receive();
                       Wait();
                     });
}

void ServiceManager::Receive() {
  std::array<char, kMaxDatagram> text;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control;
  for (;;) {
    iovec part{text.data(), text.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t size = ::recvmsg(socket_.native_handle(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (size < 0) return;
    ucred sender{};
    const cmsghdr* const header = CMSG_FIRSTHDR(&message);
    if (header != nullptr && header->cmsg_type == SCM_CREDENTIALS) {
      std::memcpy(&sender, CMSG_DATA(header), sizeof(sender));
    }
    Take({text.data(), static_cast<size_t>(size)}, sender.pid);
  }
}

void ServiceManager::Take(std::string_view text, pid_t sender) {
  const bool known = sender == daemon_.pid();
  const std::lock_guard lock(mutex_);
  if (!known) {
    ++state_.foreign;
    return;
  }
  if (state_.pid != sender) {
    State fresh;
    fresh.pid = sender;
    fresh.restarts = state_.restarts;
    fresh.status_before_restart = state_.status_before_restart;
    fresh.foreign = state_.foreign;
    state_ = fresh;
  }
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    const TimePoint now = Clock::Process().Now();
    if (line == "READY=1") {
      state_.ready = true;
      last_fed_ = now;
    } else if (line == "WATCHDOG=1") {
      ++state_.fed;
      state_.longest_pause = std::max(state_.longest_pause, now - last_fed_);
      last_fed_ = now;
    } else if (line.starts_with("STATUS=")) {
      state_.status = line.substr(std::strlen("STATUS="));
    }
  }
}

// The real one lets a hung daemon write a core file, which a node's folder has no room for.
void ServiceManager::Look() {
  {
    const std::lock_guard lock(mutex_);
    if (watchdog_ == Duration{} || !state_.ready || state_.pid != daemon_.pid()) return;
    if (Clock::Process().Now() - last_fed_ <= watchdog_) return;
    state_.ready = false;
    ++state_.restarts;
    state_.status_before_restart = state_.status;
  }
  daemon_.Kill(SIGKILL);
  if (daemon_.Wait(kDeath)) daemon_.Start();
}

}  // namespace zem::sim
