#include "sim/sinks/log_sink.h"

#include <charconv>
#include <regex>

namespace zem::sim {
namespace {

constexpr int kReceiveBuffer = 8 * 1024 * 1024;
constexpr size_t kMaxDatagram = size_t{1024} * 1024;
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
    : follow_(std::move(follow)),
      socket_({.path = path,
               .thread_name = "log-sink",
               .max_datagram = kMaxDatagram,
               .receive_buffer = kReceiveBuffer},
              [this](std::string_view datagram) { Take(ParseLogLine(datagram)); }) {}

void LogSink::Take(LogLine line) {
  std::lock_guard lock(mutex_);
  line.number = ++last_number_;
  if (follow_) follow_(line);
  lines_.push_back(std::move(line));
  if (lines_.size() > kMaxLines) lines_.pop_front();
  added_.NotifyAll();
}

void LogSink::AwaitWritten() const {
  const TimePoint deadline = Clock::Process().Now() + kWritten;
  while (!socket_.Drained() && Clock::Process().Now() < deadline) SleepFor(kLook);
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
