#include "app/ctxteng/idsevents/external_logger.h"

#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <utility>

#include "app/ctxteng/idsevents/fence.h"
#include "app/ctxteng/idsrecord/line_budget.h"
#include "app/ctxteng/idsrecord/tenant_line.h"
#include "framework/log/log.h"
#include "framework/process/error_text.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/unix_socket.h"

namespace IdsEvtEng {
namespace {

using zem::Tarvik::Util::GetErrMsg;

constexpr zem::LogSource kLog{"tarvik", "idsevt"};

constexpr int kRetrySeconds = 10;
constexpr int kMostTries = 50;
constexpr std::chrono::seconds kWaitForPeer{1};
constexpr uint32_t kLinesOfAKind = 10;
LineBudget g_send_errors{kLinesOfAKind};

}  // namespace

void ExternalLogger::Run() {
  while (Connect() && SendBatches()) socket_.Reset();
  socket_.Reset();
  if (interruption_.stopped()) ZLOG_INFO("External logging thread interrupted, exiting");
}

bool ExternalLogger::Connect() {
  const char* const name = param_.extLogSocketName.c_str();
  socket_ = zem::OpenUnixStream(SOCK_NONBLOCK);
  if (!socket_) {
    ZLOG_CTX_ERROR(723, "Socket creation failed for %s", name);
    return false;
  }
  ZLOG_INFO("Socket %s created, fd : %d", name, socket_.get());
  for (int tries = 0; tries < kMostTries; ++tries) {
    if (interruption_.SleepFor(std::chrono::seconds(kRetrySeconds))) return false;
    const int error = zem::ConnectUnix(socket_.get(), param_.extLogSocketName);
    if (error == 0) {
      ZLOG_INFO("Successfully connected to socket %s", name);
      return true;
    }
    ZLOG_CTX_ERROR(732, "Socket connect failed, %s, retry after %d secs", GetErrMsg(error).c_str(),
                   kRetrySeconds);
  }
  ZLOG_CTX_ERROR(732, "Failed to connect to socket %s after %d retries", name, kMostTries);
  return false;
}

// True when the peer is gone, false when the engine stops.
bool ExternalLogger::SendBatches() {
  bool peer_gone = false;
  while (!peer_gone && !interruption_.SleepFor(std::chrono::seconds(param_.extLogSendFreqS))) {
    Fenced(722, "Exception while logging external events, error %s",
           "Unknown exception while logging external events", nullptr,
           [this, &peer_gone] { peer_gone = !SendBatch(); });
  }
  return peer_gone && !interruption_.stopped();
}

// False when the peer is gone.
bool ExternalLogger::SendBatch() {
  const uint32_t waiting = lines_.count();
  if (waiting == 0 && in_hand_.empty()) {
    ZLOG_DEBUG("No events to send to ext log queue, returning");
    return true;
  }
  ZLOG_INFO("Sending batch of %d events to external logging entity",
            static_cast<int>(waiting + (in_hand_.empty() ? 0 : 1)));
  uint32_t popped = 0;
  for (;;) {
    if (in_hand_.empty()) {
      const zem::LoopStep step("next line");
      std::unique_ptr<std::string> line = popped++ < waiting ? lines_.Pop() : nullptr;
      if (line == nullptr) return true;
      in_hand_ = AddTenant(std::move(*line), tenant_of_);
      if (!in_hand_.ends_with('\n')) in_hand_ += '\n';
    }
    switch (SendLine(in_hand_)) {
      case Sent::kWhole:
      case Sent::kLost:
        in_hand_.clear();
        break;
      case Sent::kPeerGone:
        return false;
      case Sent::kStopped:
        return true;
    }
  }
}

ExternalLogger::Sent ExternalLogger::SendLine(const std::string& line) {
  size_t sent = 0;
  while (sent < line.size()) {
    int error = 0;
    {
      const zem::LoopStep step("send of a line");
      const ssize_t part = ::send(socket_.get(), line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
      if (part >= 0) {
        sent += static_cast<size_t>(part);
        continue;
      }
      error = errno;
    }
    if (error == EINTR) continue;
    if (error == EAGAIN) {
      // A peer that does not read keeps this thread waiting and lets the queue fill.
      const auto wait = interruption_.WaitFor(socket_.get(), POLLOUT, kWaitForPeer);
      if (wait == Interruption::Wait::kStopped) return Sent::kStopped;
      continue;
    }
    if (g_send_errors.Allows())
      ZLOG_CTX_ERROR(733, "Failed to send event to socket %s, %s", param_.extLogSocketName.c_str(),
                     GetErrMsg(error).c_str());
    // Half a line would spoil the stream for the lines behind it, so then the peer is given up as well.
    return error == EPIPE || sent > 0 ? Sent::kPeerGone : Sent::kLost;
  }
  return Sent::kWhole;
}

}  // namespace IdsEvtEng
