#include "app/ctxteng/idsevents/alert_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>

#include "app/ctxteng/idsevents/fence.h"
#include "app/ctxteng/idsevents/ids_services.h"
#include "app/ctxteng/idsrecord/event_reader.h"
#include "app/ctxteng/idsrecord/line_budget.h"
#include "framework/log/log.h"
#include "framework/process/error_text.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/unix_socket.h"

namespace IdsEvtEng {
namespace {

using zem::Tarvik::Util::GetErrMsg;

constexpr zem::LogSource kLog{"tarvik", "idsevt"};

constexpr std::chrono::seconds kWait{10};
constexpr std::chrono::seconds kAfterFailure{1};
// What is received by one call of the system, at most, and its memory.
constexpr size_t kMostDatagrams = 16;
constexpr size_t kMostBytes = 1 << 20;
constexpr uint32_t kLinesOfAKind = 10;
LineBudget g_receive_errors{kLinesOfAKind};
LineBudget g_other_lines{kLinesOfAKind};
LineBudget g_full_logger{kLinesOfAKind};

bool Bind(int fd, const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() > zem::kMaxUnixPath) {
    errno = ENAMETOOLONG;
    return false;
  }
  path.copy(address.sun_path, path.size());
  return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

}  // namespace

bool AlertSocket::Open() {
  const char* const name = param_.idsSocketName.c_str();
  socket_.Reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket_) {
    ZLOG_CTX_ERROR(723, "Failed to create socket for ids event consumer");
    return false;
  }
  ::unlink(name);
  if (!Bind(socket_.get(), param_.idsSocketName)) {
    const std::string reason = GetErrMsg(errno);
    ZLOG_CTX_ERROR(724, "Failed to bind to socket %s", name);
    ZLOG_WARN("No alert will be received: %s", reason.c_str());
    return false;
  }
  const int flags = ::fcntl(socket_.get(), F_GETFL);
  if (flags < 0) {
    ZLOG_CTX_ERROR(725, "Failed to get flags on listen fd for socket %s", name);
    return false;
  }
  if (::fcntl(socket_.get(), F_SETFL, flags | O_NONBLOCK) < 0) {
    ZLOG_CTX_ERROR(725, "Failed to set flags on listen fd for socket %s", name);
    return false;
  }
  // The system has no datagram that is larger than this.
  datagram_size_ = std::clamp<size_t>(param_.idsSocketRecvLen, 1, kMostBytes);
  datagrams_ = std::clamp<size_t>(kMostBytes / datagram_size_, 1, kMostDatagrams);
  buffers_.resize(datagrams_ * (datagram_size_ + 1));
  return true;
}

void AlertSocket::Run() {
  if (Open()) {
    while (!interruption_.stopped()) {
      Fenced(722, "Event consumption thread encountered an exception, %s",
             "Unknown exception while receiving events", nullptr, [this] { WaitAndReceive(); });
    }
    ZLOG_INFO("Event consumption thread interrupted, exiting");
  }
  socket_.Reset();
}

void AlertSocket::WaitAndReceive() {
  switch (interruption_.WaitFor(socket_.get(), POLLIN, kWait)) {
    case Interruption::Wait::kReady:
      return Receive();
    case Interruption::Wait::kFailed:
      ZLOG_CTX_ERROR(727, "Select error on socket %s, errno = %d", param_.idsSocketName.c_str(), errno);
      interruption_.SleepFor(kAfterFailure);
      return;
    case Interruption::Wait::kTimeOut:
    case Interruption::Wait::kStopped:
      return;
  }
}

void AlertSocket::Receive() {
  const zem::LoopStep step("datagrams of the detection");
  std::array<iovec, kMostDatagrams> buffers{};
  std::array<mmsghdr, kMostDatagrams> messages{};
  for (size_t i = 0; i < datagrams_; ++i) {
    buffers[i] = {&buffers_[i * (datagram_size_ + 1)], datagram_size_};
    messages[i].msg_hdr.msg_iov = &buffers[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  const int received =
      ::recvmmsg(socket_.get(), messages.data(), static_cast<unsigned>(datagrams_), MSG_DONTWAIT, nullptr);
  if (received < 0) return TakeReceived(nullptr, received, errno);
  for (size_t i = 0; i < static_cast<size_t>(received); ++i)
    TakeReceived(static_cast<char*>(buffers[i].iov_base), messages[i].msg_len, 0);
}

void AlertSocket::TakeReceived(char* bytes, ssize_t length, int error) {
  if (length <= 0) {
    if (g_receive_errors.Allows())
      ZLOG_CTX_ERROR(726, "Error receiving on socket %s, ret = %d, errno = %d", param_.idsSocketName.c_str(),
                     static_cast<int>(length), error);
    return;
  }
  bytes[length] = '\0';
  ZLOG_DEBUG("Data received on socket: len = %d, %s", static_cast<int>(length), bytes);
  Take(std::string_view(bytes, static_cast<size_t>(length)));
}

void AlertSocket::Take(std::string_view datagram) {
  // The sender may send a text's closing zero.
  const std::string_view text = datagram.substr(0, datagram.find('\0'));
  switch (ReadEventType(text, &line_)) {
    case kAlertEvent:
      if (auto event = ReadAlert(line_); services_.IsKafkaReady()) {
        intake_.AddKafkaEvent(std::move(event));
      } else {
        intake_.AddEvent(std::move(event));
      }
      break;
    case kFlowSnipEvent:
      if (auto notice = ReadCapture(line_); services_.IsPcapEnabled() && services_.IsKafkaReady()) {
        intake_.AddKafkaPcap(std::move(notice));
      } else {
        intake_.AddPcap(std::move(notice));
      }
      break;
    case kOtherEvent:
      if (g_other_lines.Allows())
        ZLOG_CTX_ERROR(729, "%s: Parsing JSON string returns invalid value", "ConsumeIdsEvents");
      break;
  }
  if (!text.empty() && services_.IsExternalLoggingEnabled()) KeepForLogger(text);
}

void AlertSocket::KeepForLogger(std::string_view text) {
  auto copy = std::make_unique<std::string>(text);
  if (log_lines_.Push(copy)) return;
  if (g_full_logger.Allows())
    ZLOG_CTX_ERROR(728, "Failed to add event to ext log queue, current size = %d, max size = %d",
                   static_cast<int>(log_lines_.count()), static_cast<int>(log_lines_.limit()));
}

}  // namespace IdsEvtEng
