#include "sim/ids/log_collector.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "platform/core/poll.h"
#include "platform/core/unix_socket.h"

namespace zem::sim {
namespace {

constexpr size_t kLinesKept = 10000;
constexpr size_t kLongestLine = 1 << 20;
constexpr size_t kSlowBytes = 100;
constexpr auto kSlowPause = std::chrono::milliseconds(100);

}  // namespace

LogCollector::LogCollector(std::string path)
    : path_(std::move(path)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

LogCollector::~LogCollector() { Stop(); }

std::string LogCollector::Start() {
  if (thread_.joinable()) return "the logger runs";
  UniqueFd listener = OpenUnixStream(SOCK_NONBLOCK);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path_.copy(address.sun_path, kMaxUnixPath);
  ::unlink(path_.c_str());
  if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(listener.get(), 1) != 0)
    return "cannot listen: " + std::string(std::strerror(errno));
  listener_ = std::move(listener);
  {
    const std::lock_guard lock(mutex_);
    stopping_ = false;
    state_.running = true;
  }
  NativeThread::Options options;
  options.name = "log-collector";
  thread_ = NativeThread(std::move(options), [this] { Run(); });
  return "";
}

bool LogCollector::Stop() {
  if (!thread_.joinable()) return false;
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    state_.running = false;
  }
  Wake();
  thread_.Join();
  listener_.Reset();
  ::unlink(path_.c_str());
  return true;
}

void LogCollector::SetReading(Reading reading) {
  {
    const std::lock_guard lock(mutex_);
    reading_ = reading;
  }
  Wake();
}

void LogCollector::Wake() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t full_is_awake = ::write(wake_.get(), &one, sizeof(one));
}

void LogCollector::Run() {
  for (;;) {
    Reading reading = Reading::kFast;
    {
      const std::lock_guard lock(mutex_);
      if (stopping_) break;
      reading = reading_;
    }
    const bool reads = connection_ && reading != Reading::kNot;
    std::array<pollfd, 3> waits{pollfd{wake_.get(), POLLIN, 0},
                                pollfd{connection_ ? -1 : listener_.get(), POLLIN, 0},
                                pollfd{reads ? connection_.get() : -1, POLLIN, 0}};
    PollIdle(waits.data(), waits.size(), -1);
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t none_is_fine = ::read(wake_.get(), &count, sizeof(count));
    if (waits[1].revents != 0) Accept();
    if (waits[2].revents != 0) Read();
    if (reads && reading == Reading::kSlow) SleepFor(kSlowPause);
  }
  connection_.Reset();
}

void LogCollector::Accept() {
  connection_.Reset(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  const std::lock_guard lock(mutex_);
  part_.clear();
  if (connection_) ++state_.connections;
}

void LogCollector::Read() {
  std::array<char, 65536> buffer;
  size_t most = buffer.size();
  {
    const std::lock_guard lock(mutex_);
    if (reading_ == Reading::kSlow) most = kSlowBytes;
  }
  const ssize_t size = ::recv(connection_.get(), buffer.data(), most, 0);
  if (size > 0) {
    Take(buffer.data(), static_cast<size_t>(size));
  } else if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
    connection_.Reset();
  }
}

void LogCollector::Take(const char* bytes, size_t size) {
  const std::lock_guard lock(mutex_);
  state_.bytes += size;
  const char* const end = bytes + size;
  while (bytes < end) {
    const char* const line_end = std::find(bytes, end, '\n');
    part_.append(bytes, std::min(static_cast<size_t>(line_end - bytes), kLongestLine - part_.size()));
    if (line_end == end) return;
    bytes = line_end + 1;
    ++state_.lines;
    lines_.push_back(std::move(part_));
    part_.clear();
    if (lines_.size() > kLinesKept) lines_.pop_front();
  }
}

LogCollector::State LogCollector::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

std::vector<std::string> LogCollector::Lines(size_t most) const {
  const std::lock_guard lock(mutex_);
  const size_t count = std::min(most, lines_.size());
  return {lines_.end() - static_cast<ptrdiff_t>(count), lines_.end()};
}

}  // namespace zem::sim
