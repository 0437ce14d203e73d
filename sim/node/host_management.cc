#include "sim/node/host_management.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace zem::sim {
namespace {

void Check(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

HostManagement::HostManagement(std::string path) : path_(std::move(path)) { Start(); }

HostManagement::~HostManagement() { Stop(); }

void HostManagement::Start() {
  const std::lock_guard lock(mutex_);
  if (listener_) return;
  UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path_.c_str(), sizeof(address.sun_path) - 1);
  ::unlink(path_.c_str());
  Check(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), path_.c_str());
  Check(::listen(listener.get(), 1), path_.c_str());
  stop_event_ = UniqueFd(::eventfd(0, EFD_CLOEXEC));
  listener_ = std::move(listener);
  state_.listening = true;
  thread_ = Thread([this] { Serve(); });
}

void HostManagement::Stop() {
  {
    const std::lock_guard lock(mutex_);
    if (!listener_) return;
    const uint64_t one = 1;
    Check(static_cast<int>(::write(stop_event_.get(), &one, sizeof(one))), "stop");
  }
  thread_.Join();
  const std::lock_guard lock(mutex_);
  listener_ = UniqueFd();
  ::unlink(path_.c_str());
  state_.listening = false;
  state_.connected = false;
}

// One connection at a time, as the daemon makes one; what it says is taken and goes nowhere.
void HostManagement::Serve() {
  UniqueFd client;
  for (;;) {
    pollfd waits[2] = {{client ? client.get() : listener_.get(), POLLIN, 0}, {stop_event_.get(), POLLIN, 0}};
    if (::poll(waits, 2, -1) < 0 && errno != EINTR) return;
    if (waits[1].revents != 0) return;
    if (waits[0].revents == 0) continue;
    if (!client) {
      client = UniqueFd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      const std::lock_guard lock(mutex_);
      state_.connected = static_cast<bool>(client);
      if (client) ++state_.connections;
      continue;
    }
    char buffer[4096];
    if (::recv(client.get(), buffer, sizeof(buffer), 0) > 0) continue;
    client = UniqueFd();
    const std::lock_guard lock(mutex_);
    state_.connected = false;
  }
}

HostManagement::State HostManagement::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

}  // namespace zem::sim
