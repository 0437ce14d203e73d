#include "framework/log/syslog_sink.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "platform/core/clock.h"
#include "platform/core/poll.h"

namespace zem {

SyslogSink::SyslogSink(Options options)
    : options_(std::move(options)), pid_(::getpid()), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

SyslogSink::~SyslogSink() { Stop(); }

void SyslogSink::Start() {
  if (thread_) return;
  stop_ = false;
  NativeThread::Options options;
  options.name = "syslog";
  thread_.emplace(std::move(options), [this] { Run(); });
  running_ = true;
}

void SyslogSink::Stop() {
  if (!thread_) return;
  running_ = false;
  stop_ = true;
  Wake();
  thread_->Join();
  thread_.reset();
}

void SyslogSink::Exit(int code) {
  if (waiting_count_ == 0 || !running_) ::_Exit(code);
  exit_code_ = code;
  Wake();
}

void SyslogSink::Wake() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t full_is_awake = ::write(wake_.get(), &one, sizeof(one));
}

uint64_t SyslogSink::lost() const {
  std::lock_guard lock(mutex_);
  return lost_;
}

std::string SyslogSink::Frame(int priority, std::string_view text) const {
  const std::time_t now = std::chrono::system_clock::to_time_t(
      std::chrono::time_point_cast<std::chrono::system_clock::duration>(Clock::Process().WallNow()));
  std::tm local{};
  ::localtime_r(&now, &local);
  char head[64];
  size_t size = static_cast<size_t>(std::snprintf(head, sizeof(head), "<%d>", priority));
  size += std::strftime(head + size, sizeof(head) - size, "%b %e %H:%M:%S ", &local);
  std::string line(head, size);
  line.append(options_.identity).append("[").append(std::to_string(pid_)).append("]: ").append(text);
  return line;
}

void SyslogSink::Write(int priority, std::string_view text) {
  std::string line = Frame(priority, text);
  bool first = false;
  {
    std::lock_guard lock(mutex_);
    if (!SendWaiting()) {
      Wait(std::move(line));
      return;
    }
    switch (Send(line)) {
      case Sent::kYes:
        return;
      case Sent::kNever:
        ++lost_;
        return;
      case Sent::kFull:
      case Sent::kAway:
        Wait(std::move(line));
        first = true;
    }
  }
  if (first) Wake();
}

// With the mutex held.
void SyslogSink::Wait(std::string line) {
  waiting_bytes_ += line.size();
  waiting_.push_back(std::move(line));
  while (waiting_bytes_ > kMost) {
    waiting_bytes_ -= waiting_.front().size();
    waiting_.pop_front();
    ++lost_;
  }
  waiting_count_ = waiting_.size();
}

// With the mutex held.
bool SyslogSink::SendWaiting() {
  if (lost_ > 0 && !waiting_.empty()) {
    const Sent sent = Send(Frame(LOG_LOCAL6 | LOG_WARNING, options_.loss_line(lost_)));
    if (sent == Sent::kFull || sent == Sent::kAway) return false;
    lost_ = 0;
  }
  while (!waiting_.empty()) {
    const Sent sent = Send(waiting_.front());
    if (sent == Sent::kFull || sent == Sent::kAway) return false;
    if (sent == Sent::kNever) ++lost_;
    waiting_bytes_ -= waiting_.front().size();
    waiting_.pop_front();
    waiting_count_ = waiting_.size();
  }
  return true;
}

// With the mutex held.
SyslogSink::Sent SyslogSink::Send(const std::string& line) {
  for (bool again = static_cast<bool>(socket_);; again = false) {
    if (!socket_ && !Connect()) return Sent::kAway;
    if (::send(socket_.get(), line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return Sent::kYes;
    switch (errno) {
      case EAGAIN:
      case ENOBUFS:
      case EINTR:
        return Sent::kFull;
      case EMSGSIZE:
        return Sent::kNever;
      default:
        break;
    }
    // The daemon has gone; another one may have taken its place.
    socket_.Reset();
    if (!again) return Sent::kAway;
  }
}

// With the mutex held.
bool SyslogSink::Connect() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (options_.path.size() >= sizeof(address.sun_path)) return false;
  std::memcpy(address.sun_path, options_.path.data(), options_.path.size());
  UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd || ::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) return false;
  socket_ = std::move(fd);
  return true;
}

void SyslogSink::Run() {
  while (!stop_) {
    pollfd waits[2] = {{wake_.get(), POLLIN, 0}, {-1, POLLOUT, 0}};
    int timeout_ms = -1;
    {
      std::lock_guard lock(mutex_);
      if (!SendWaiting()) {
        waits[1].fd = socket_.get();
        if (!socket_) timeout_ms = kReconnectMs;
      }
    }
    // A negative descriptor is not looked at.
    PollIdle(waits, 2, timeout_ms);
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t none_is_fine = ::read(wake_.get(), &count, sizeof(count));
    if (exit_code_ >= 0) {
      Drain();
      ::_Exit(exit_code_);
    }
  }
  Drain();
  // It was asked for while the sink was ending.
  if (exit_code_ >= 0) ::_Exit(exit_code_);
}

void SyslogSink::Drain() {
  for (;;) {
    pollfd wait{-1, POLLOUT, 0};
    {
      std::lock_guard lock(mutex_);
      if (SendWaiting() || !socket_) return;
      wait.fd = socket_.get();
    }
    if (PollIdle(&wait, 1, kPatienceMs) == 0) return;
  }
}

}  // namespace zem
