#include "sim/scenario/control_client.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "platform/core/thread.h"

namespace zem::sim {
namespace {

constexpr auto kLook = std::chrono::milliseconds(20);

[[noreturn]] void Fail(const std::string& what, int error) {
  throw std::system_error(error, std::generic_category(), what);
}

}  // namespace

ControlClient::ControlClient(const std::string& path, Duration patience) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) Fail(path, ENAMETOOLONG);
  std::memcpy(address.sun_path, path.data(), path.size());
  const TimePoint deadline = Clock::Process().Now() + patience;
  for (;;) {
    socket_.Reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return;
    const int error = errno;
    // A node that is starting has no socket yet, or one that is not served yet.
    if ((error != ENOENT && error != ECONNREFUSED) || Clock::Process().Now() >= deadline) Fail(path, error);
    SleepFor(kLook);
  }
}

std::string ControlClient::Execute(std::string_view command, bool again) {
  if (!observer_) return Exchange(command);
  const std::string text(command);
  observer_(text, {}, again);
  std::string answer = Exchange(command);
  observer_(text, answer, again);
  return answer;
}

std::string ControlClient::Exchange(std::string_view command) {
  std::string line(command);
  line.push_back('\n');
  for (size_t sent = 0; sent < line.size();) {
    const ssize_t n = ::send(socket_.get(), line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) Fail("the node", errno);
    sent += static_cast<size_t>(n);
  }
  for (;;) {
    const size_t end = received_.find('\n');
    if (end != std::string::npos) {
      std::string answer = received_.substr(0, end);
      received_.erase(0, end + 1);
      return answer;
    }
    char part[65536];
    const ssize_t n = ::recv(socket_.get(), part, sizeof(part), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) Fail("the node", errno);
    if (n == 0) Fail("the node", ECONNRESET);
    received_.append(part, static_cast<size_t>(n));
  }
}

}  // namespace zem::sim
