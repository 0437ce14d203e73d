#include "app/zema/app/corvd_handler.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "app/zema/common/exception.h"
#include "app/zema/common/task_thread.h"
#include "app/zema/common/thread_log_context.h"
#include "app/zema/core/health_record.h"
#include "framework/log.h"
#include "framework/util.h"
#include "platform/core/thread_name.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "CorvdHandlerThread";

constexpr Duration kRetry = std::chrono::microseconds(3'000'000);
constexpr Duration kRetryWithWaiter = std::chrono::microseconds(100'000);

// Fields of a frame's header, in the host's byte order.
constexpr size_t kHeaderSize = 284;
constexpr size_t kMagicAt = 0;
constexpr size_t kStatusAt = 276;
constexpr size_t kSizeAt = 280;
constexpr uint32_t kMagic = 0x35AE;
constexpr uint32_t kStatusFailure = 1;
constexpr uint32_t kLongestPayload = 1 << 20;
constexpr char kNotServed[] = "port operations are not served on this host";

uint32_t FieldAt(const std::array<char, kHeaderSize>& header, size_t offset) {
  uint32_t value = 0;
  std::memcpy(&value, header.data() + offset, sizeof(value));
  return value;
}

}  // namespace

CorvdHandler::CorvdHandler(HealthRecord& health, std::string socket)
    : Thread(true, nullptr, 0),
      health_(health),
      path_(std::move(socket)),
      stop_event_(::eventfd(0, EFD_CLOEXEC)) {
  if (!stop_event_) throw Exception("eventfd", errno);
}

CorvdHandler::~CorvdHandler() { StopAndJoin(); }

void CorvdHandler::Stop() {
  stop_.Stop();
  const uint64_t one = 1;
  if (::write(stop_event_.get(), &one, sizeof(one)) != sizeof(one)) {
    ZLOG_WARN("[%s] the stop was not told: %s", kTag, std::strerror(errno));
  }
  const MonitorLock lock(*this);
  Notify();
}

void CorvdHandler::Run() {
  SetThreadLogContext(kTag);
  ZLOG_INFO("[%s] CorvdHandler started...\n", kTag);
  SetThreadName("zema:Corvd_st");
  while (!stop_.stopped()) {
    Close();
    Connect();
    if (socket_) Serve();
  }
  SetThreadName("zema:CorvdComplete");
  ZLOG_INFO("[%s] CorvdHandler going down...\n", kTag);
  Close();
  ZLOG_INFO("[%s] CorvdHandler ended\n", kTag);
}

void CorvdHandler::Connect() {
  while (!stop_.stopped()) {
    socket_ = UniqueFd(Tarvik::ConnectToUnixSocket(path_, false));
    if (socket_) break;
    bool waited_for = false;
    {
      const MonitorLock lock(*this);
      waited_for = waiters_ > 0;
    }
    const Duration pause = waited_for ? kRetryWithWaiter : kRetry;
    ZLOG_INFO("[%s] cannot connect to corvd socket, retry in %d usec...\n", kTag,
              static_cast<int>(std::chrono::duration_cast<std::chrono::microseconds>(pause).count()));
    // Somebody may begin to wait in the middle of the long pause.
    for (Duration slept{0}; slept < pause; slept += kRetryWithWaiter) {
      if (stop_.WaitFor(kRetryWithWaiter)) return;
      const MonitorLock lock(*this);
      if (waiters_ > 0) break;
    }
  }
  if (!socket_) return;
  health_.opaqueSocketConnected();
  const MonitorLock lock(*this);
  connected_ = true;
  Notify();
}

void CorvdHandler::Serve() {
  SetThreadName("zema:CorvdDone");
  while (!stop_.stopped() && ServeFrame()) {
  }
}

bool CorvdHandler::ServeFrame() {
  std::array<char, kHeaderSize> header{};
  if (!Read(header.data(), header.size())) return false;
  const uint32_t size = FieldAt(header, kSizeAt);
  if (size > kLongestPayload) {
    ZLOG_ERROR("42029", "[%s] reading OpaqueNetworkMsg data from corvd socket failed\n", kTag);
    return false;
  }
  std::string payload(size, '\0');
  if (!Read(payload.data(), payload.size())) return false;
  if (const uint32_t magic = FieldAt(header, kMagicAt); magic != kMagic) {
    ZLOG_ERROR("42031", "[%s] received message with invalid magic [%x], ignore the message\n", kTag, magic);
    return true;
  }
  // With the zero that ends the text.
  const uint32_t answer_size = sizeof(kNotServed);
  std::memcpy(header.data() + kStatusAt, &kStatusFailure, sizeof(kStatusFailure));
  std::memcpy(header.data() + kSizeAt, &answer_size, sizeof(answer_size));
  std::string answer(header.data(), header.size());
  answer.append(kNotServed, answer_size);
  return Tarvik::Util::WriteData(socket_.get(), answer.data(), answer.size()) ==
         static_cast<ssize_t>(answer.size());
}

// Whole, or not at all: the stop and the end of the connection end it.
bool CorvdHandler::Read(void* buffer, size_t length) {
  size_t got = 0;
  while (got < length) {
    pollfd waits[2] = {{socket_.get(), POLLIN, 0}, {stop_event_.get(), POLLIN, 0}};
    if (::poll(waits, 2, -1) < 0) {
      if (errno == EINTR) continue;
      ZLOG_ERROR("42032", "[%s] waiting for socket to be ready failed\n", kTag);
      return false;
    }
    if (waits[1].revents != 0) return false;
    const ssize_t part = ::recv(socket_.get(), static_cast<char*>(buffer) + got, length - got, 0);
    if (part < 0 && errno == EINTR) continue;
    if (part <= 0) {
      ZLOG_ERROR("42029", "[%s] reading OpaqueNetworkMsg data from corvd socket failed\n", kTag);
      return false;
    }
    got += static_cast<size_t>(part);
  }
  return true;
}

void CorvdHandler::Close() {
  health_.opaqueSocketDisconnected();
  {
    const MonitorLock lock(*this);
    connected_ = false;
  }
  if (!socket_) return;
  socket_ = UniqueFd();
  ZLOG_INFO("[%s] closed corvd socket\n", kTag);
}

bool CorvdHandler::WaitForCorvdConnection(int seconds) {
  const MonitorLock lock(*this);
  if (connected_ || stop_.stopped()) return connected_;
  ZLOG_INFO("[%s] Waiting for corvd to open opaqueswitch socket for [%d] sec \n", __func__, seconds);
  ++waiters_;
  Wait(seconds);
  --waiters_;
  ZLOG_INFO("[%s] after wait _corvdSockFd = %d\n", __func__, connected_ ? 1 : -1);
  return connected_;
}

}  // namespace zem::zema
