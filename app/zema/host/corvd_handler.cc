#include "app/zema/host/corvd_handler.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "app/zema/host/corvd_frame.h"
#include "app/zema/ports/vif_request.h"
#include "app/zema/state/health_record.h"
#include "framework/log/log.h"
#include "framework/process/descriptor_io.h"
#include "framework/process/host_socket.h"
#include "framework/tasks/exception.h"
#include "framework/tasks/thread_log_context.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/thread_name.h"

namespace zem::zema {
namespace {

using host_socket::Result;

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "CorvdHandlerThread";

}  // namespace

CorvdHandler::CorvdHandler(HealthRecord& health, std::unique_ptr<VifHandler> vif_handler, std::string socket)
    : CorvdHandler(health, std::move(vif_handler), std::move(socket), Times()) {}

CorvdHandler::CorvdHandler(HealthRecord& health, std::unique_ptr<VifHandler> vif_handler, std::string socket,
                           Times times)
    : Thread(true, nullptr, 0),
      health_(health),
      vif_handler_(std::move(vif_handler)),
      path_(std::move(socket)),
      times_(times),
      stop_event_(::eventfd(0, EFD_CLOEXEC)),
      pool_(*vif_handler_, [this](VifRequest& request) { PopulateResultAndReplyToCorvd(request); }) {
  if (!stop_event_) throw Exception("eventfd", errno);
}

CorvdHandler::~CorvdHandler() { StopAndJoin(); }

void CorvdHandler::Stop() {
  const uint64_t one = 1;
  if (::write(stop_event_.get(), &one, sizeof(one)) != sizeof(one)) {
    ZLOG_WARN("[%s] the stop was not told: %s", kTag, std::strerror(errno));
  }
  const std::lock_guard lock(state_lock_);
  stopped_ = true;
  changed_.NotifyAll();
}

bool CorvdHandler::stopped() {
  const std::lock_guard lock(state_lock_);
  return stopped_;
}

void CorvdHandler::ServeVnics(std::string socket) {
  vnics_ = std::make_unique<VifDvportThread>(pool_, std::move(socket));
}

void CorvdHandler::ServeResync(ResyncThread::Settings settings) {
  resync_ = std::make_unique<ResyncThread>(std::move(settings), *vif_handler_);
}

void CorvdHandler::StartSources() {
  if (resync_ && resync_->Wanted()) {
    ZLOG_INFO("[%s] starting resync thread\n", kTag);
    resync_->Start();
    ZLOG_INFO("[%s] started resync thread\n", kTag);
  }
  if (vnics_) {
    ZLOG_INFO("[%s] creating VifDvportThread\n", kTag);
    vnics_->Start();
  }
  pool_.Start();
}

void CorvdHandler::EndSources() {
  const bool resyncs = resync_ && resync_->ThreadId() != Thread::kNotStarted;
  if (resyncs) resync_->Stop();
  vnics_.reset();
  pool_.Stop();
  if (!resyncs) return;
  vif_handler_->EndWaits();
  resync_->Join();
}

void CorvdHandler::Run() {
  const LoopThread loop("corvd", LoopKind::kWorker);
  SetThreadLogContext(kTag);
  ZLOG_INFO("[%s] CorvdHandler started...\n", kTag);
  StartSources();
  Close();
  while (!stopped()) {
    SetThreadName("zema:Corvd_st");
    Connect();
    if (!socket_) break;
    const bool served = Serve();
    if (stopped()) break;
    Close();
    // A daemon that closes each connection after accepting it must not cause a busy loop.
    if (!served && Pause()) break;
  }
  SetThreadName("zema:CorvdComplete");
  EndSources();
  Close();
  ZLOG_INFO("[%s] CorvdHandler ended\n", kTag);
}

void CorvdHandler::Connect() {
  UniqueFd socket;
  while (!socket) {
    if (stopped()) return;
    socket = UniqueFd(Tarvik::ConnectToUnixSocket(path_, false));
    if (!socket && Pause()) return;
  }
  {
    const Synchronizer lock(frame_lock_, __FILE__, __LINE__);
    socket_ = std::move(socket);
    ++connection_;
  }
  health_.opaqueSocketConnected();
  const std::lock_guard lock(state_lock_);
  connected_ = true;
  changed_.NotifyAll();
}

// Returns true when the handler has to end.  A new waiter ends the long pause.
bool CorvdHandler::Pause() {
  std::unique_lock lock(state_lock_);
  const bool waited_for = waiters_ > 0;
  const Duration pause = waited_for ? times_.retry_with_waiter : times_.retry;
  ZLOG_INFO("[%s] cannot connect to corvd socket, retry in %d usec...\n", kTag,
            static_cast<int>(std::chrono::duration_cast<std::chrono::microseconds>(pause).count()));
  changed_.WaitFor(lock, pause, [&] { return stopped_ || (!waited_for && waiters_ > 0); });
  return stopped_;
}

// Returns false when not a single frame was received.
bool CorvdHandler::Serve() {
  SetThreadName("zema:CorvdDone");
  for (bool any = false;; any = true) {
    ZLOG_DEBUG("[%s] reading OpaqueNetworkMsg from corvd ...\n\n", kTag);
    Result ready = Result::kTimeout;
    while ((ready = host_socket::WaitToRead(socket_.get(), stop_event_.get(), times_.slice)) ==
           Result::kTimeout) {
      pool_.DeleteIdlingThread();
    }
    switch (ready) {
      case Result::kDone:
        break;
      case Result::kStopped:
        ZLOG_INFO("[%s] CorvdHandler going down...\n", kTag);
        return any;
      default:
        ZLOG_ERROR("42032", "[%s] waiting for socket to be ready failed\n", kTag);
        return any;
    }
    const LoopStep step("request of the host");
    std::shared_ptr<CorvdRequest> request = ReadFrame();
    if (!request) return any;
    if (!any) vif_handler_->HostCame();
    if (HandleCorvdMessage(std::move(request)) != 0) {
      ZLOG_ERROR("42026", "[%s] HandleCorvdMessage() failed\n", kTag);
      return any;
    }
  }
}

// Returns null when the connection has to be given up.
std::shared_ptr<CorvdRequest> CorvdHandler::ReadFrame() {
  auto request = std::make_shared<CorvdRequest>();
  CorvdHeader& header = request->header;
  const Synchronizer lock(frame_lock_, __FILE__, __LINE__);
  const TimePoint deadline = Clock::Process().Now() + times_.frame;
  const auto read = [&](char* into, size_t length) {
    return host_socket::ReadWhole(socket_.get(), stop_event_.get(), into, length,
                                  deadline - Clock::Process().Now()) == Result::kDone;
  };
  if (!read(header.data(), CorvdHeader::kSize) || header.payload_size() > kLongestCorvdPayload) {
    ZLOG_ERROR("42029", "[%s] reading OpaqueNetworkMsg data from corvd socket failed\n", kTag);
    return nullptr;
  }
  ZLOG_INFO("[%s] Received msg (opId=%s) from corvd opcode [%u (%s)] payload size:[%u]\n", kTag,
            header.op_id().c_str(), header.opcode(), CorvdOpcodeName(header.opcode()), header.payload_size());
  request->connection = connection_;
  if (header.payload_size() == 0) return request;
  request->payload.resize(header.payload_size());
  if (!read(request->payload.data(), request->payload.size())) {
    ZLOG_WARN("[%s] reading payload data from corvd socket failed\n", kTag);
    return nullptr;
  }
  ZLOG_INFO("[%s] Received payload: size:[%u]\n", kTag, header.payload_size());
  return request;
}

int CorvdHandler::HandleCorvdMessage(std::shared_ptr<CorvdRequest> request) {
  CorvdHeader& header = request->header;
  ZLOG_TRACE("[%s] HandleCorvdMessage(opId=%s)\n", kTag, header.op_id().c_str());
  if (header.magic() != CorvdHeader::kMagic) {
    ZLOG_ERROR("42031", "[%s] received message with invalid magic [%x], ignore the message\n", kTag,
               header.magic());
    return 0;
  }
  if (header.version() != CorvdHeader::kVersion) {
    ZLOG_ERROR("42030", "[%s] received message has version mismatch: %u\n", kTag, header.version());
    header.SetResult(CorvdHeader::kVersionMismatched, 0);
    return ReplyToCorvd(*request, {});
  }
  if (header.opcode() >= kCorvdOpcodeEnd) {
    ZLOG_ERROR("42028", "[%s] invalid opCode: [%u]\n", kTag, header.opcode());
    header.SetResult(CorvdHeader::kNotSupported, 0);
    return ReplyToCorvd(*request, {});
  }
  std::shared_ptr<VifRequest> built = BuildVifRequest(std::move(request));
  if (built->error_text.empty()) precreated_ports_.Merge(*built);
  AddRequest(std::move(built));
  return 0;
}

void CorvdHandler::PopulateResultAndReplyToCorvd(VifRequest& request) {
  const bool failed = !request.error_text.empty();
  std::string payload = failed ? request.error_text : request.result_text;
  if (!payload.empty()) payload.push_back('\0');
  request.request->header.SetResult(failed ? CorvdHeader::kFailure : CorvdHeader::kSuccess,
                                    static_cast<uint32_t>(payload.size()));
  if (ReplyToCorvd(*request.request, payload) != 0) {
    ZLOG_WARN("[%s] the reply to [%s] is dropped", kTag, request.ToString().c_str());
  }
}

int CorvdHandler::ReplyToCorvd(const CorvdRequest& request, const std::string& payload) {
  const Synchronizer lock(frame_lock_, __FILE__, __LINE__);
  if (!socket_ || request.connection != connection_) return -1;
  ZLOG_DEBUG("[%s] sending reply to corvd....\n", kTag);
  // Sent in one piece, since every send takes the same share of the socket's buffer, however small.
  std::string frame(request.header.data(), CorvdHeader::kSize);
  frame += payload;
  if (host_socket::WriteWhole(socket_.get(), stop_event_.get(), frame.data(), frame.size(), times_.frame) !=
      Result::kDone) {
    // The daemon cannot use half a frame, so the connection ends; the reading thread notices.
    ::shutdown(socket_.get(), SHUT_RDWR);
    return -1;
  }
  ZLOG_INFO("[%s] sent reply=[%s]\n", kTag, CorvdStatusName(request.header.status()));
  if (!payload.empty()) ZLOG_INFO("[%s] sent result = [%s]\n", kTag, payload.c_str());
  return 0;
}

void CorvdHandler::Close() {
  health_.opaqueSocketDisconnected();
  {
    const std::lock_guard lock(state_lock_);
    connected_ = false;
  }
  if (!socket_) return;
  // Unblocks a reply that waits because the daemon does not read.
  ::shutdown(socket_.get(), SHUT_RDWR);
  const Synchronizer lock(frame_lock_, __FILE__, __LINE__);
  if (::close(socket_.Release()) != 0) {
    ZLOG_ERROR("42025", "[%s] closing corvd socket failed: [%s]\n", kTag, std::strerror(errno));
    return;
  }
  ZLOG_INFO("[%s] closed corvd socket\n", kTag);
}

bool CorvdHandler::WaitForCorvdConnection(int seconds) {
  std::unique_lock lock(state_lock_);
  if (stopped_) return false;
  ZLOG_INFO("[%s] Waiting for corvd to open opaqueswitch socket for [%d] sec \n", __func__, seconds);
  if (connected_) {
    ZLOG_INFO("[%s] connected open opaqueswitch socket _corvdSockFd = %d\n", __func__, socket_.get());
    return true;
  }
  ++waiters_;
  changed_.NotifyAll();
  changed_.WaitFor(lock, std::chrono::seconds(seconds), [this] { return connected_ || stopped_; });
  --waiters_;
  ZLOG_INFO("[%s] after wait _corvdSockFd = %d\n", __func__, connected_ ? socket_.get() : -1);
  return connected_;
}

}  // namespace zem::zema
