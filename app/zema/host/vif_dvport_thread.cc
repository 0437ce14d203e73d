#include "app/zema/host/vif_dvport_thread.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "app/zema/ports/vif_request.h"
#include "app/zema/vifqueue/handler_pool.h"
#include "framework/log/log.h"
#include "framework/process/host_socket.h"
#include "framework/tasks/exception.h"
#include "framework/tasks/thread_log_context.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/thread_name.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

using host_socket::Result;

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "VifDvportThread";

constexpr int kBacklog = 32;
constexpr int32_t kLongestData = 1 << 20;
// The time limit for a frame that has begun: the next connection waits until this one ends.
constexpr Duration kFrameLimit = std::chrono::seconds(60);
constexpr Duration kSlice = std::chrono::seconds(10);
// The socket has its own numbers: in the manager's messages an attach is 0.
constexpr uint32_t kAttach = 1;

Result WaitToRead(int fd, int stop_fd) {
  Result result = Result::kTimeout;
  while (result == Result::kTimeout) result = host_socket::WaitToRead(fd, stop_fd, kSlice);
  return result;
}

}  // namespace

VifDvportThread::VifDvportThread(HandlerPool& pool, std::string socket)
    : Thread(true, nullptr, 0),
      pool_(pool),
      path_(std::move(socket)),
      stop_event_(::eventfd(0, EFD_CLOEXEC)) {
  if (!stop_event_) throw Exception("eventfd", errno);
}

VifDvportThread::~VifDvportThread() { StopAndJoin(); }

void VifDvportThread::Stop() {
  const uint64_t one = 1;
  if (::write(stop_event_.get(), &one, sizeof(one)) != sizeof(one)) {
    ZLOG_WARN("[%s] the stop was not told: %s", kTag, std::strerror(errno));
  }
}

void VifDvportThread::Run() {
  const LoopThread loop("vifDvport", LoopKind::kWorker);
  SetThreadLogContext(kTag);
  SetThreadName("zema:VifDvport");
  if (!Listen()) return;
  while (WaitToRead(listener_.get(), stop_event_.get()) == Result::kDone) {
    UniqueFd connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (connection) {
      Serve(connection.get());
      continue;
    }
    ZLOG_ERROR("42203", "[%s] Error accepting IPC connection, error [%s]", kTag, std::strerror(errno));
    // When descriptors are exhausted, accept would fail again at once.
    if (errno != EINTR && errno != ECONNABORTED &&
        host_socket::WaitToRead(stop_event_.get(), stop_event_.get(), std::chrono::seconds(1)) ==
            Result::kStopped) {
      break;
    }
  }
  listener_ = UniqueFd();
  ::unlink(path_.c_str());
}

bool VifDvportThread::Listen() {
  ZLOG_INFO("Creating server socket for runtime vnic updates");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof(address.sun_path)) {
    ZLOG_ERROR("42200", "[%s] Error creating IPC socket, error [%s]", kTag, std::strerror(ENAMETOOLONG));
    return false;
  }
  std::memcpy(address.sun_path, path_.c_str(), path_.size());
  listener_ = UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!listener_) {
    ZLOG_ERROR("42200", "[%s] Error creating IPC socket, error [%s]", kTag, std::strerror(errno));
    return false;
  }
  ::unlink(path_.c_str());
  if (::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    ZLOG_ERROR("42201", "[%s] Error binding IPC socket, error [%s]", kTag, std::strerror(errno));
    return false;
  }
  if (::listen(listener_.get(), kBacklog) != 0) {
    ZLOG_ERROR("42202", "[%s] Error listening on IPC socket, error [%s]", kTag, std::strerror(errno));
    return false;
  }
  return true;
}

void VifDvportThread::Serve(int connection) {
  std::string data;
  while (WaitToRead(connection, stop_event_.get()) == Result::kDone) {
    const LoopStep step("update of an interface");
    int32_t length = 0;
    const auto read = [&](void* into, size_t size) {
      return host_socket::ReadWhole(connection, stop_event_.get(), into, size, kFrameLimit);
    };
    if (read(&length, sizeof(length)) != Result::kDone) {
      ZLOG_ERROR("42204", "[%s] Error reading data length from connection", kTag);
      return;
    }
    if (length < 1) continue;
    data.resize(length <= kLongestData ? static_cast<size_t>(length) : 0);
    if (data.empty() || read(data.data(), data.size()) != Result::kDone) {
      ZLOG_ERROR("42205", "[%s] Error reading data of length [%d] from connection", kTag, length);
      return;
    }
    AddVifRequests(data);
  }
}

std::vector<std::shared_ptr<VifRequest>> VifDvportThread::RequestsOf(std::string_view data) {
  std::vector<std::shared_ptr<VifRequest>> requests;
  orlane::zem::switching::VifMsg message;
  if (!message.ParseFromArray(data.data(), static_cast<int>(data.size()))) return requests;
  const bool attach = message.operation() == kAttach;
  for (const auto& entry : message.vif_attachment()) {
    auto request = std::make_shared<VifRequest>();
    request->op_id = attach ? "dvport-attach-" : "dvport-detach-";
    request->op_id += entry.has_id() ? entry.id() : std::to_string(requests.size());
    request->op_code = attach ? VifRequest::kAttach : VifRequest::kDetach;
    request->vif_id = entry.vif_id();
    // "<logical switch>:<switch>"
    const std::string& origin = entry.origin_id();
    const size_t colon = origin.find(':');
    request->ls_id = origin.substr(0, colon);
    if (colon != std::string::npos) request->security_switch_id = origin.substr(colon + 1);
    request->port_id = entry.logical_port_id();
    request->gcf_path = entry.gcf_path();
    requests.push_back(std::move(request));
  }
  return requests;
}

void VifDvportThread::AddVifRequests(std::string_view data) {
  for (auto& request : RequestsOf(data)) {
    ZLOG_INFO("[%s] Adding new vif request [opId: %s] [%s] to corvd handler", kTag, request->op_id.c_str(),
              request->ToString().c_str());
    pool_.AddRequest(std::move(request));
  }
}

}  // namespace zem::zema
