#include "sim/node/log_sink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <regex>
#include <system_error>

namespace zem::sim {
namespace {

constexpr int kReceiveBuffer = 8 * 1024 * 1024;
constexpr size_t kMaxDatagram = 1024 * 1024;
constexpr auto kWritten = std::chrono::seconds(2);
constexpr auto kLook = std::chrono::milliseconds(1);

}  // namespace

LogLine ParseLogLine(std::string_view datagram) {
  LogLine line{};
  while (!datagram.empty() && (datagram.back() == '\n' || datagram.back() == '\0')) datagram.remove_suffix(1);
  line.text = std::string(datagram);
  if (datagram.empty() || datagram[0] != '<') return line;
  const size_t end = datagram.find('>');
  int priority = 0;
  if (end == std::string_view::npos ||
      std::from_chars(datagram.data() + 1, datagram.data() + end, priority).ptr != datagram.data() + end) {
    return line;
  }
  line.facility = priority >> 3;
  line.severity = priority & 7;
  // "Mmm dd hh:mm:ss " is 16 bytes.
  constexpr size_t kTime = 16;
  std::string_view rest = datagram.substr(end + 1);
  if (rest.size() < kTime) return line;
  rest.remove_prefix(kTime);
  const size_t open = rest.find('[');
  const size_t close = rest.find("]: ");
  if (open == std::string_view::npos || close == std::string_view::npos || open > close) {
    line.text = std::string(rest);
    return line;
  }
  line.identity = std::string(rest.substr(0, open));
  std::from_chars(rest.data() + open + 1, rest.data() + close, line.pid);
  line.text = std::string(rest.substr(close + 3));
  return line;
}

LogSink::LogSink(const std::string& path, std::function<void(const LogLine&)> follow)
    : path_(path), follow_(std::move(follow)) {
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
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof(kReceiveBuffer));
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) < 0) throw std::system_error(errno, std::generic_category(), "pipe");
  stop_read_.Reset(ends[0]);
  stop_write_.Reset(ends[1]);
  Thread::Options options;
  options.name = "log-sink";
  options.counts_as_work = false;
  thread_ = Thread(std::move(options), [this] { Receive(); });
}

LogSink::~LogSink() {
  stop_write_.Reset();
  thread_.Join();
  ::unlink(path_.c_str());
}

void LogSink::Receive() {
  std::vector<char> buffer(kMaxDatagram);
  for (;;) {
    pollfd fds[] = {{socket_.get(), POLLIN, 0}, {stop_read_.get(), POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0 && errno != EINTR) return;
    if (fds[1].revents != 0) return;
    // Under the lock, so that a line is either still in the socket or to be found.
    std::lock_guard lock(mutex_);
    const ssize_t size = ::recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size <= 0) continue;
    LogLine line = ParseLogLine(std::string_view(buffer.data(), static_cast<size_t>(size)));
    line.number = ++last_number_;
    if (follow_) follow_(line);
    lines_.push_back(std::move(line));
    if (lines_.size() > kMaxLines) lines_.pop_front();
    added_.NotifyAll();
  }
}

void LogSink::AwaitWritten() const {
  const TimePoint deadline = Clock::Process().Now() + kWritten;
  for (int unread = 1; unread > 0 && Clock::Process().Now() < deadline;) {
    if (::ioctl(socket_.get(), FIONREAD, &unread) < 0) return;
    if (unread > 0) SleepFor(kLook);
  }
}

uint64_t LogSink::last_number() const {
  AwaitWritten();
  std::lock_guard lock(mutex_);
  return last_number_;
}

std::vector<LogLine> LogSink::Find(const std::string& pattern, uint64_t after, size_t limit) const {
  const std::regex expression(pattern);
  std::deque<LogLine> found;
  AwaitWritten();
  std::lock_guard lock(mutex_);
  for (auto line = lines_.rbegin(); line != lines_.rend() && found.size() < limit; ++line) {
    if (line->number <= after) break;
    if (std::regex_search(line->text, expression)) found.push_front(*line);
  }
  return {found.begin(), found.end()};
}

std::optional<LogLine> LogSink::Wait(const std::string& pattern, uint64_t after, Duration timeout) const {
  const std::regex expression(pattern);
  const TimePoint deadline = Clock::Process().Now() + timeout;
  std::unique_lock lock(mutex_);
  uint64_t seen = after;
  for (;;) {
    // Lines are numbered without gaps, so the first unseen one is found by its distance from the end.
    const uint64_t unseen = std::min<uint64_t>(last_number_ - std::min(seen, last_number_), lines_.size());
    for (auto line = lines_.end() - static_cast<ptrdiff_t>(unseen); line != lines_.end(); ++line) {
      if (std::regex_search(line->text, expression)) return *line;
    }
    seen = last_number_;
    if (!added_.WaitUntil(lock, deadline, [&] { return last_number_ > seen; })) return std::nullopt;
  }
}

}  // namespace zem::sim
