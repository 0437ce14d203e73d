#include "app/zemda/collector/da_lum_proxy.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include "app/zemda/inventory/reply_reader.h"
#include "framework/log/log.h"
#include "platform/core/poll.h"
#include "platform/core/unix_socket.h"

namespace ZemDa {
namespace {

using std::chrono::hours;
using std::chrono::seconds;

constexpr zem::LogSource kLog{"tarvik", "zemda"};

constexpr int kAttempts = 10;
constexpr auto kBetweenAttempts = seconds(2);
constexpr int kTries = 10;
constexpr auto kBetweenTries = seconds(5);
constexpr int kPings = 10;
constexpr auto kBetweenPings = seconds(5);
constexpr auto kPingLimit = seconds(30);
constexpr auto kSilence = seconds(120);
constexpr auto kNoLimit = hours(24 * 365);
constexpr size_t kPiece = 1023;
constexpr size_t kMostLine = 1 << 20;
constexpr size_t kMostReply = 64 << 20;
// Each costs far more than its bytes.
constexpr size_t kMostLines = 4 << 20;

}  // namespace

DaLumProxy::DaLumProxy(std::string path, Interruption& interruption)
    : path_(std::move(path)), interruption_(interruption) {}

bool DaLumProxy::TakeError() { return std::exchange(error_, false); }

void DaLumProxy::Close() {
  socket_.Reset();
  received_.clear();
  searched_ = 0;
}

// --- The connection.

bool DaLumProxy::TryConnect() {
  zem::UniqueFd socket = zem::OpenUnixStream(SOCK_NONBLOCK);
  if (socket.get() < 0) return false;
  for (int i = 0; i < kTries; ++i) {
    if (i > 0) interruption_.SleepFor(kBetweenTries);
    const int error = zem::ConnectUnix(socket.get(), path_);
    if (error == 0) {
      socket_ = std::move(socket);
      return true;
    }
    ZLOG_WARN("Error %s while connecting to socket. Retrying after sleep.",
              std::generic_category().message(error).c_str());
  }
  return false;
}

bool DaLumProxy::Connect() {
  if (socket_.get() >= 0) {
    ZLOG_DEBUG("Using existing socket for communication");
    return true;
  }
  for (int i = 0; i < kAttempts; ++i) {
    if (i > 0) interruption_.SleepFor(kBetweenAttempts);
    if (TryConnect()) {
      ZLOG_INFO("Discovery Agent connected.");
      return true;
    }
    ZLOG_WARN("Failed to spawn Discovery Agent. Going to retry.");
  }
  return false;
}

bool DaLumProxy::AwaitHost() {
  for (int i = 0; i < kPings; ++i) {
    if (i > 0) interruption_.SleepFor(kBetweenPings);
    const auto reply = Send("ping") ? ReadLine(kPingLimit) : std::nullopt;
    if (!reply) {
      ZLOG_WARN("Unexpected reply for ping command.");
      return false;
    }
    if (*reply == "Connected") return true;
    ZLOG_INFO("QUB DA is not connected.");
  }
  return false;
}

// --- Requests.

// What came behind the last reply belongs to no request.  As the next one's beginning it would shift all that
// follow, and a change would be taken for everything.
bool DaLumProxy::DropLeftover() {
  size_t dropped = received_.size();
  received_.clear();
  searched_ = 0;
  for (std::array<char, kPiece> piece; dropped <= kMostLine;) {
    const ssize_t got = ::recv(socket_.get(), piece.data(), piece.size(), MSG_DONTWAIT);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;  // an end is found by the read of the reply
    dropped += static_cast<size_t>(got);
  }
  if (dropped > 0) ZLOG_WARN("%zu bytes behind the end of a reply are dropped", dropped);
  return dropped <= kMostLine;
}

bool DaLumProxy::Send(const std::string& request) {
  if (!DropLeftover()) return false;
  const std::string line = request + "\n";
  // A line fits into the socket of a daemon that reads.
  return ::send(socket_.get(), line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
         static_cast<ssize_t>(line.size());
}

// Waits for more of the reply and takes it.
bool DaLumProxy::Fill(zem::Duration limit) {
  const zem::TimePoint deadline = zem::Clock::Process().Now() + limit;
  for (;;) {
    interruption_.Point();
    std::array<pollfd, 2> waits = {pollfd{socket_.get(), POLLIN, 0},
                                   pollfd{interruption_.descriptor(), POLLIN, 0}};
    const int ready = zem::PollUntil(waits.data(), waits.size(), deadline);
    if (ready < 0 && errno != EINTR) return false;
    if (ready == 0 && zem::Clock::Process().Now() >= deadline) return false;
    if (waits[0].revents == 0) continue;
    std::array<char, kPiece> piece;
    const ssize_t got = ::recv(socket_.get(), piece.data(), piece.size(), MSG_DONTWAIT);
    if (got > 0) {
      received_.append(piece.data(), static_cast<size_t>(got));
      return true;
    }
    if (got == 0 || (errno != EAGAIN && errno != EINTR)) return false;
  }
}

std::optional<std::string> DaLumProxy::ReadLine(zem::Duration limit) {
  for (;;) {
    const size_t end = received_.find('\n', searched_);
    if (end != std::string::npos) {
      std::string line = received_.substr(0, end);
      received_.erase(0, end + 1);
      searched_ = 0;
      return line;
    }
    searched_ = received_.size();
    if (received_.size() > kMostLine || !Fill(limit)) {
      ZLOG_WARN("Reading from the stream failed.");
      return std::nullopt;
    }
    limit = kSilence;
  }
}

std::optional<std::vector<ReplyLine>> DaLumProxy::Ask(const char* request, const char* what,
                                                      zem::Duration first) {
  std::vector<ReplyLine> lines;
  bool good = Send(request);
  for (size_t bytes = 0; good;) {
    const auto line = ReadLine(lines.empty() ? first : kSilence);
    bytes += line ? line->size() + 1 : 0;
    good = line && bytes <= kMostReply && lines.size() < kMostLines;
    if (!good) break;
    lines.push_back(SplitLine(*line));
    if (*line == "done") return lines;
  }
  ZLOG_WARN("Reading reply from socket failed.");
  ZLOG_WARN("%s", what);
  error_ = true;
  Close();
  return std::nullopt;
}

std::optional<std::vector<ReplyLine>> DaLumProxy::FullSync() {
  return Ask("FullSync", "Unexpected reply for full sync command.", kSilence);
}

std::optional<std::vector<ReplyLine>> DaLumProxy::Updates() {
  return Ask("Updates", "Unexpected reply for update command.", kNoLimit);
}

}  // namespace ZemDa
