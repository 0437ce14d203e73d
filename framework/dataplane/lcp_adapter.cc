#include "framework/dataplane/lcp_adapter.h"

#include <algorithm>
#include <mutex>
#include <unordered_map>

#include "framework/dataplane/dp_link.h"
#include "framework/log/log.h"
#include "platform/core/unix_socket.h"
#include "platform/provider/work_group.h"
#include "proto/lcp/lcp.pb.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

constexpr uint8_t kMessageFrame = 1;

// Whoever has an upload's id may write the manager's file.
std::string Printed(const orlane::zem::lcp::LcpDpMsg& message) {
  if (!message.livetrace().request().has_upload_id()) return message.DebugString();
  orlane::zem::lcp::LcpDpMsg shown = message;
  shown.mutable_livetrace()->mutable_request()->set_upload_id("******");
  return shown.DebugString();
}

}  // namespace

class LcpAdapter::Inbox {
 public:
  void Register(const std::string& type_name, Handler handler) {
    std::lock_guard lock(mutex_);
    handlers_[type_name] = std::move(handler);
  }

  void Receive(const uint8_t* frame, size_t length) {
    if (frame == nullptr || length < 1) return;
    ZLOG_DEBUG("receive a message from zem-agent");
    if (length < kLcpHeaderSize || frame[1] != kMessageFrame) return;
    const size_t whole = std::min<size_t>(ReadLcpHeader(frame).length, length);
    const size_t body = whole > kLcpHeaderSize ? whole - kLcpHeaderSize : 0;
    orlane::zem::lcp::LcpDpMsg message;
    if (!message.ParseFromArray(frame + kLcpHeaderSize, static_cast<int>(body))) return;
    std::lock_guard lock(mutex_);
    if (message.has_traceflow()) CallLocked(message.traceflow());
    if (message.has_livetrace()) CallLocked(message.livetrace());
  }

 private:
  void CallLocked(const google::protobuf::Message& message) {
    const auto found = handlers_.find(message.GetTypeName());
    if (found == handlers_.end()) return;
    const Handler handler = found->second;
    handler(message);
  }

  std::mutex mutex_;  // guards handlers_
  std::unordered_map<std::string, Handler> handlers_;
};

LcpAdapter::LcpAdapter(boost::intrusive_ptr<WorkGroup> work_group, std::string socket_path)
    : socket_path_(std::move(socket_path)),
      work_group_(std::move(work_group)),
      inbox_(std::make_shared<Inbox>()) {
  if (socket_path_.size() > kMaxUnixPath) {
    socket_path_.resize(kMaxUnixPath);
    ZLOG_DEBUG("%s: Zem-Agent socket path too long, truncated to [%s]", __func__, socket_path_.c_str());
  }
}

LcpAdapter::~LcpAdapter() { Stop(); }

void LcpAdapter::Start(AsioZemProvider& provider) {
  link_ = new DpLink(
      socket_path_, [inbox = inbox_](const uint8_t* frame, size_t length) { inbox->Receive(frame, length); },
      [] {}, nullptr, provider, work_group_);
  if (!link_->Start())
    ZLOG_ERROR("OPS00002", "%s: work group \"%s\" refused the link", __func__, work_group_->name().c_str());
}

void LcpAdapter::Stop() {
  if (link_ != nullptr) link_->Stop();
}

std::optional<LcpFrame> LcpAdapter::FrameOf(uint8_t frame_type,
                                            const orlane::zem::lcp::LcpDpMsg& message) const {
  ZLOG_DEBUG("Send msg to zem-agent, msg is %s", Printed(message).c_str());
  if (link_ == nullptr) return std::nullopt;
  const size_t size = kLcpHeaderSize + message.ByteSizeLong();
  if (size > kMaxLcpFrame || !message.IsInitialized()) return std::nullopt;
  LcpFrame frame(static_cast<uint8_t*>(std::malloc(size)));
  if (frame != nullptr) {
    WriteLcpHeader(frame_type, static_cast<uint32_t>(size), frame.get());
    if (!message.SerializeToArray(frame.get() + kLcpHeaderSize, static_cast<int>(size - kLcpHeaderSize))) {
      return std::nullopt;
    }
  }
  return frame;
}

bool LcpAdapter::Send(uint8_t frame_type, const orlane::zem::lcp::LcpDpMsg& message) {
  auto frame = FrameOf(frame_type, message);
  return frame && link_->Send(std::move(*frame));
}

bool LcpAdapter::TrySend(uint8_t frame_type, const orlane::zem::lcp::LcpDpMsg& message) {
  auto frame = FrameOf(frame_type, message);
  return frame && link_->TrySend(std::move(*frame));
}

bool LcpAdapter::connected() const { return link_ != nullptr && link_->connected(); }

void LcpAdapter::RegisterHandler(const std::string& type_name, Handler handler) {
  inbox_->Register(type_name, std::move(handler));
}

}  // namespace zem::Tarvik
