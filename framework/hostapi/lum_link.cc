#include "framework/hostapi/lum_link.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "framework/log/log.h"
#include "framework/process/descriptor_io.h"
#include "framework/process/host_socket.h"

// The mutex of the operations is held while an operation waits for the process.  Whoever closes the link
// shuts the connection down first, which ends that wait, and so never waits longer than the operation takes
// to notice. An operation that finds its connection being closed fails silently: the one who closes it is at
// work already.

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

constexpr auto kTransferLimit = std::chrono::seconds(3);

using host_socket::Result;

}  // namespace

LumLink::LumLink(std::string path, StatusCallback status_callback)
    : path_(std::move(path)),
      status_callback_(std::move(status_callback)),
      stop_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

LumLink::~LumLink() = default;

void LumLink::SetErrorCallback(ErrorCallback callback) {
  const std::lock_guard lock(state_mutex_);
  error_callback_ = std::move(callback);
}

void LumLink::Stop() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t full_is_readable = ::write(stop_.get(), &one, sizeof(one));
}

bool LumLink::OpenLumSocket() {
  ZLOG_INFO("OpenLumSocket: %s", path_.c_str());
  {
    const std::lock_guard lock(state_mutex_);
    if (socket_) return true;
  }
  // Without the locks: it may take a minute, in which operations and questions are answered.
  UniqueFd connected(ConnectToUnixSocket(path_, true, stop_.get()));
  if (!connected) {
    ZLOG_INFO("%s: ConnectToUnixSocket failed", path_.c_str());
    return false;
  }
  {
    const std::lock_guard operation(mutex_);
    const std::lock_guard lock(state_mutex_);
    if (socket_) return true;
    socket_ = std::move(connected);
    ++connection_;
    failed_ = false;
    status_ = kUp;
  }
  if (status_callback_) status_callback_(this, kUp);
  return true;
}

void LumLink::CloseLumSocket() {
  ZLOG_INFO("CloseLumSocket: %s", path_.c_str());
  uint64_t connection = 0;
  {
    const std::lock_guard lock(state_mutex_);
    if (!socket_) return;
    connection = connection_;
    closing_ = true;
    ::shutdown(socket_.get(), SHUT_RDWR);
  }
  UniqueFd closed;
  {
    const std::lock_guard operation(mutex_);
    const std::lock_guard lock(state_mutex_);
    if (!socket_ || connection_ != connection) return;
    closed = std::move(socket_);
    closing_ = false;
    failed_ = false;
    status_ = kDown;
  }
  // The descriptor is gone even when the call was interrupted: a second close could hit another file.
  if (::close(closed.Release()) != 0 && errno == EINTR) {
    ZLOG_ERROR("OPS00206", "Could not close connection: %s, retry", std::strerror(errno));
  }
  if (status_callback_) status_callback_(this, kDown);
}

int LumLink::Connection() {
  const std::lock_guard lock(state_mutex_);
  if (status_ == kDown || closing_) return -1;
  // The answer to a question of the connection before does not come on this one.
  if (exchange_ != 0 && exchange_ != connection_) return -1;
  return socket_.get();
}

bool LumLink::Fail() {
  exchange_ = 0;
  const std::lock_guard lock(state_mutex_);
  if (closing_ || status_ == kDown) return false;
  status_ = kDown;
  failed_ = true;
  return true;
}

void LumLink::TellFailure() {
  ErrorCallback callback;
  {
    const std::lock_guard lock(state_mutex_);
    callback = error_callback_;
  }
  if (callback) callback(this);
}

bool LumLink::TakeFailure() {
  const std::lock_guard lock(state_mutex_);
  return std::exchange(failed_, false);
}

void LumLink::Break() {
  {
    const std::lock_guard operation(mutex_);
    if (!Fail()) return;
  }
  TellFailure();
}

bool LumLink::Send(const void* data, size_t length) {
  ZLOG_DEBUG("%s: Send...", path_.c_str());
  {
    const std::lock_guard operation(mutex_);
    exchange_ = 0;
    const int fd = Connection();
    if (fd < 0) {
      ZLOG_INFO("Connection of %s is already down", path_.c_str());
      return false;
    }
    // What is left of an earlier answer would be taken for the next one.
    char left = 0;
    const bool out_of_step = ::recv(fd, &left, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
    const Result result = out_of_step
                              ? Result::kFailed
                              : host_socket::WriteWhole(fd, stop_.get(), data, length, kTransferLimit);
    if (result == Result::kDone) {
      const std::lock_guard lock(state_mutex_);
      exchange_ = connection_;
      return true;
    }
    if (result == Result::kStopped || !Fail()) return false;
    ZLOG_INFO("%s: Send data failed", path_.c_str());
  }
  TellFailure();
  return false;
}

bool LumLink::WaitResponse(int seconds) {
  ZLOG_DEBUG("%s: WaitResponse...", path_.c_str());
  {
    const std::lock_guard operation(mutex_);
    const int fd = Connection();
    if (fd < 0) {
      exchange_ = 0;
      ZLOG_INFO("Connection of %s is already down", path_.c_str());
      return false;
    }
    const Result result = host_socket::WaitToRead(fd, stop_.get(), std::chrono::seconds(seconds));
    if (result == Result::kDone) return true;
    if (result == Result::kStopped || !Fail()) return false;
    ZLOG_INFO("%s: WaitResponse timeout", path_.c_str());
  }
  TellFailure();
  return false;
}

bool LumLink::Recv(void* buffer, size_t length, int* received) {
  ZLOG_DEBUG("%s: Recv...", path_.c_str());
  if (received != nullptr) *received = 0;
  {
    const std::lock_guard operation(mutex_);
    const int fd = Connection();
    if (fd < 0) {
      exchange_ = 0;
      return false;
    }
    const Result result = host_socket::ReadWhole(fd, stop_.get(), buffer, length, kTransferLimit);
    if (result == Result::kDone) {
      if (received != nullptr) *received = static_cast<int>(length);
      return true;
    }
    if (result == Result::kStopped || !Fail()) return false;
    ZLOG_INFO("%s: Recv data failed", path_.c_str());
  }
  TellFailure();
  return false;
}

}  // namespace zem::Tarvik
