#include "framework/dataplane/dp_link.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/poll.h"
#include "platform/core/unix_socket.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/provider/work_group.h"

// The two loops and the timer share one socket by shares: whoever takes the link down shuts the socket down,
// which ends the calls of the others; the number is free again only when the last of them has let go.

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

constexpr size_t kQueueLimit = 1024;
constexpr auto kReopenPeriod = std::chrono::seconds(5);
constexpr int kPollMs = 1000;

constexpr const char* kFamily = "AF_UNIX";

class LinkSocket final : public SharedSocket {
 public:
  using SharedSocket::SharedSocket;
  ~LinkSocket() {
    // The descriptor is gone even when the call was interrupted: a second close could hit another file.
    if (::close(Release()) != 0 && errno == EINTR) {
      ZLOG_ERROR("OPS00206", "Could not close netlink connection: %s, retry", std::strerror(errno));
    }
  }
};

// Returns false.
bool LogNotQueued(bool whole) {
  if (whole) ZLOG_ERROR("OPS00002", "Msg Queue is full!");
  ZLOG_ERROR("OPS00002", "DpLink: failed to put a message into queue");
  return false;
}

}  // namespace

// Reads the frames of one connection after the other.
class DpLink::Receiver {
 public:
  explicit Receiver(DpLink& link) : link_(link) {}

  void Step() {
    const Socket socket = link_.CurrentSocket();
    if (socket == nullptr) {
      link_.stop_.WaitFor(kReopenPeriod);
      return;
    }
    if (socket != reading_) {
      reading_ = socket;
      reader_.Reset();
    }
    pollfd wait{socket->fd(), POLLIN, 0};
    const int ready = PollIdle(&wait, 1, kPollMs);
    if (ready > 0) {
      if (!Read(*socket)) link_.Disconnect(socket);
    } else if (ready < 0 && errno != EINTR) {
      ZLOG_ERROR("OPS00204", "DpLink %s: poll error: %d:%s", Path(), errno, std::strerror(errno));
      link_.Disconnect(socket);
    }
  }

 private:
  const char* Path() const { return link_.path_.c_str(); }

  // Takes what is there.  False when the connection is of no more use.
  bool Read(const SharedSocket& socket) {
    const LoopStep step("frames of the dataplane agent");
    for (;;) {
      const std::span<uint8_t> space = reader_.Space();
      const ssize_t got = ::recv(socket.fd(), space.data(), space.size(), MSG_DONTWAIT);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0 && errno == EAGAIN) return true;
      if (got < 0) {
        ZLOG_ERROR("OPS00205", "DpLink %s: recv error: %d:%s", Path(), errno, std::strerror(errno));
        return false;
      }
      if (got == 0) {
        LogEnd();
        return false;
      }
      if (!Take(static_cast<size_t>(got))) return false;
      if (link_.stop_.stopped()) return true;
    }
  }

  void LogEnd() {
    if (reader_.in_body()) {
      ZLOG_DEBUG("DpLink %s: recv 0 byte body, the peer has performed an orderly shutdown", Path());
    } else {
      ZLOG_ERROR("OPS00205", "DpLink %s: recv 0 byte header, the peer has performed an orderly shutdown",
                 Path());
    }
  }

  bool Take(size_t count) {
    using Event = LcpFrameReader::Event;
    Event event = reader_.Advance(count);
    const LcpHeader& header = reader_.header();
    if (event == Event::kHeader || event == Event::kBadLength || event == Event::kBadReserved) {
      ZLOG_DEBUG("Receiving DpMsg, Header of DpMsg: reserved: %u, fragment: %u, type: %u, len: %u",
                 header.reserved, header.fragment, header.type, header.length);
    }
    if (event == Event::kHeader) event = reader_.Advance(0);
    switch (event) {
      case Event::kBadLength:
        ZLOG_ERROR("OPS00205", "DpLink %s: recv error: wrong message size %d", Path(),
                   static_cast<int>(header.length));
        return false;
      case Event::kBadReserved:
        ZLOG_ERROR("OPS00205",
                   "DpLink %s: recv error, invalid DpMsg header, fragment: %d, type: %d, size: %u", Path(),
                   header.fragment, header.type, header.length);
        return false;
      case Event::kNoMemory:
        ZLOG_ERROR("OPS00205", "DpLink %s: recv error: %d:%s", Path(), ENOMEM, std::strerror(ENOMEM));
        return false;
      case Event::kFrame:
        ZLOG_DEBUG("DpLink %s: received %d byte from kernel", Path(), static_cast<int>(header.length));
        if (link_.receive_) link_.receive_(reader_.frame().data(), reader_.frame().size());
        return true;
      default:
        return true;
    }
  }

  DpLink& link_;
  Socket reading_;
  LcpFrameReader reader_;
};

DpLink::DpLink(std::string path, ReceiveCallback receive, StartCallback start, HealthCallback health,
               AsioZemProvider& provider, boost::intrusive_ptr<WorkGroup> work_group)
    : DataplaneLink(std::move(receive), std::move(start), std::move(health)),
      provider_(provider),
      work_group_(std::move(work_group)),
      path_(path.substr(0, kMaxUnixPath)),
      outgoing_("dataplaneLink", kQueueLimit) {}

DpLink::~DpLink() = default;

bool DpLink::Start() {
  {
    std::lock_guard lock(connection_mutex_);
    ConnectLocked();
    StartTimerLocked();
  }
  const boost::intrusive_ptr<DpLink> self(this);
  return work_group_->Enqueue(MakeWorkItem([self] { self->ReceiveLoop(); })) &&
         work_group_->Enqueue(MakeWorkItem([self] { self->SendLoop(); }));
}

void DpLink::Stop() {
  stop_.Stop();
  {
    std::lock_guard lock(connection_mutex_);
    if (reopen_timer_ != nullptr) reopen_timer_->Cancel();
    reopen_timer_ = nullptr;
    DisconnectLocked();
  }
  outgoing_.Close();
}

void DpLink::ScheduleReopen() {
  std::lock_guard lock(connection_mutex_);
  if (reopen_timer_ != nullptr) reopen_timer_->Cancel();
  StartTimerLocked();
  ZLOG_INFO("DpLink reopen scheduled");
}

bool DpLink::Send(LcpFrame frame) {
  const bool whole = frame != nullptr;
  return (whole && outgoing_.Push(std::move(frame))) || LogNotQueued(whole);
}

bool DpLink::TrySend(LcpFrame frame) {
  const bool whole = frame != nullptr;
  return (whole && outgoing_.TryPush(std::move(frame))) || LogNotQueued(whole);
}

void DpLink::StartTimerLocked() {
  if (stop_.stopped()) return;
  const boost::intrusive_ptr<DpLink> self(this);
  reopen_timer_ = provider_.timers().ScheduleRepeated(
      kReopenPeriod, [self] { self->CheckHealth(); }, TimerOptions::Default);
}

void DpLink::ConnectLocked() {
  if (stop_.stopped()) return;
  if (socket_ != nullptr) {
    ZLOG_TRACE("Connection of %s is OK", path_.c_str());
    return;
  }
  // Non-blocking, so that an agent that does not accept cannot hold the provider's thread.
  UniqueFd fd = OpenUnixStream(SOCK_NONBLOCK);
  if (!fd) {
    ZLOG_ERROR("OPS00201", "Could not open %s socket: %d", kFamily, errno);
    return;
  }
  if (const int error = ConnectUnix(fd.get(), path_); error != 0) {
    ZLOG_ERROR("OPS00202", "Could not connect to %s socket (\"%s\"): %s", kFamily, path_.c_str(),
               std::strerror(error));
    return;
  }
  socket_ = std::make_shared<LinkSocket>(std::move(fd));
  connected_ = true;
  ZLOG_INFO("Connected to %s socket %s", kFamily, path_.c_str());
}

void DpLink::Disconnect(const Socket& socket) {
  std::lock_guard lock(connection_mutex_);
  if (socket_ == socket) DisconnectLocked();
}

void DpLink::DisconnectLocked() {
  if (socket_ == nullptr) return;
  socket_->Shutdown();
  socket_ = nullptr;
  connected_ = false;
}

void DpLink::CheckHealth() {
  std::lock_guard lock(connection_mutex_);
  if (socket_ != nullptr && health_ && !health_(socket_->fd())) DisconnectLocked();
  ConnectLocked();
}

DpLink::Socket DpLink::CurrentSocket() {
  std::lock_guard lock(connection_mutex_);
  return socket_;
}

void DpLink::ReceiveLoop() {
  const LoopThread loop("dataplane:rx", LoopKind::kWorker);
  Receiver receiver(*this);
  while (!stop_.stopped()) receiver.Step();
}

void DpLink::SendLoop() {
  const LoopThread loop("dataplane:tx", LoopKind::kWorker);
  while (!stop_.stopped()) {
    if (CurrentSocket() == nullptr) {
      stop_.WaitFor(kReopenPeriod);
      continue;
    }
    std::optional<LcpFrame> frame = outgoing_.Pop();
    if (!frame) continue;
    // The link may have gone down while the queue was empty: the frame then waits for the next connection.
    const Socket socket = CurrentSocket();
    if (socket == nullptr) {
      outgoing_.PushFront(std::move(*frame));
      continue;
    }
    ZLOG_DEBUG("DpLink: get a message from MPA");
    if (SendWhole(socket, *frame)) continue;
    ZLOG_DEBUG("DpLink link down");
    Disconnect(socket);
  }
}

bool DpLink::SendWhole(const Socket& socket, const LcpFrame& frame) {
  const LoopStep step("frame to the dataplane agent");
  const uint32_t length = ReadLcpHeader(frame.get()).length;
  uint32_t offset = 0;
  while (offset < length) {
    const ssize_t sent =
        ::send(socket->fd(), frame.get() + offset, length - offset, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
      offset += static_cast<uint32_t>(sent);
      ZLOG_DEBUG("DpLink: sending %d bytes to kernel, left %d, offset %d", static_cast<int>(sent),
                 static_cast<int>(length - offset), static_cast<int>(offset));
    } else if (errno == EINTR) {
      ZLOG_DEBUG("DpLink: hit signal, continue");
    } else if (errno == EAGAIN) {
      pollfd wait{socket->fd(), POLLOUT, 0};
      PollIdle(&wait, 1, kPollMs);
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace zem::Tarvik
