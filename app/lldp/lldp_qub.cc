#include "app/lldp/lldp_qub.h"

#include <algorithm>
#include <cinttypes>
#include <new>
#include <utility>

#include "framework/hostapi/lum_client.h"
#include "framework/log/log.h"
#include "mpaclient/verticals.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/thread_name.h"
#include "platform/provider/work_group.h"

// The manager's record is copied and left on a queue: an exchange with the host may take seconds, and the
// thread that delivers the record serves all verticals.

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "lldp"};

constexpr const char* kAnswerType = "com.orlane.zem.lldp.LldpInterfacesMsg";
constexpr const char* kSendThread = "lldp:SndRsp";

constexpr std::string_view kQuery = "rpcquery";
constexpr std::string_view kPing = "rpcping";
constexpr std::string_view kCommandFailed = "error: rpc command";

constexpr size_t kMostQuestions = 64;
constexpr int kAnswerSeconds = 3;
constexpr auto kPingPeriod = std::chrono::seconds(30);
// An answer that is too long for the buffer, but not beyond this, is read to its end and the link stays.
constexpr uint32_t kMostDiscarded = 1024 * 1024;

// In the host's byte order: both ends are on the same machine.
struct ReplyHeader {
  uint32_t unread;
  uint32_t length;
};

}  // namespace

LldpQub::LldpQub(AsioZemProvider& provider, boost::intrusive_ptr<WorkGroup> work_group,
                 boost::intrusive_ptr<LumClient> client, boost::intrusive_ptr<LumLink> link)
    : work_group_(std::move(work_group)),
      client_(std::move(client)),
      link_(std::move(link)),
      vertical_(provider, GetVertical(VerticalId::kLldp),
                {.intercept =
                     [this](const VerticalRecord& record) {
                       Receive(record);
                       return true;
                     }}),
      questions_("lldpQuestions", kMostQuestions) {}

LldpQub::~LldpQub() = default;

void LldpQub::Start() {
  const boost::intrusive_ptr<LldpQub> self(this);
  const bool queued = work_group_->Enqueue(MakeWorkItem([self] { self->PingLoop(); })) &&
                      work_group_->Enqueue(MakeWorkItem([self] { self->SendLoop(); }));
  if (!queued) ZLOG_DEBUG("no thread for the loops, the work group has stopped");
  client_->Register(link_);
  vertical_.Start();
}

void LldpQub::Stop() {
  vertical_.Stop();
  questions_.Close();
  ping_stop_.Stop();
  link_->Stop();
  client_->Unregister(link_->path());
}

// --- The manager's side.

void LldpQub::Receive(const VerticalRecord& record) {
  if (record.type() != kRmqMpRpcRequest) {
    ZLOG_INFO("Received other message types from MP");
    return;
  }
  ZLOG_INFO("Received RPC request from MP");
  Question question{std::string(record.payload()), record.header.correlation_id, record.header.reply_to};
  if (!questions_.TryPush(std::move(question))) {
    ZLOG_ERROR("OPS00202", "Failed to communicate With lldp Lum");
    ZLOG_DEBUG("%zu questions wait already", kMostQuestions);
  }
}

void LldpQub::SendLoop() {
  SetThreadName(kSendThread);
  const LoopThread loop("lldp:send", LoopKind::kWorker);
  while (const auto question = questions_.Pop()) Answer(*question);
}

void LldpQub::Answer(const Question& question) {
  const LoopStep step("question of the manager");
  std::string answer;
  if (RpcCommand(kQuery, question.payload, &answer) <= 0) {
    ZLOG_ERROR("OPS00202", "Failed to communicate With lldp Lum");
    return;
  }
  try {
    const auto message =
        vertical_.Prepare(kAnswerType, std::move(answer), question.correlation_id, question.reply_to);
    if (!message || vertical_.SendPrepared(*message) != VerticalClient::Sent::kSent) {
      ZLOG_ERROR("MPA00103", "Error While Sending to ZEM %d \n", -1);
    }
  } catch (const std::bad_alloc&) {
    ZLOG_ERROR("OPS00003", "Failed to allocate response message");
  }
}

// --- The host's side.

void LldpQub::PingLoop() {
  const LoopThread loop("lldp:ping", LoopKind::kWorker);
  while (!ping_stop_.WaitFor(kPingPeriod)) {
    const LoopStep step("ping of the host API");
    std::string answer;
    if (RpcCommand(kPing, "", &answer) > 0 || ping_stop_.stopped()) continue;
    ZLOG_ERROR("OPS00207", "Failed to ping LldpLum");
    ZLOG_DEBUG("PingLLdpLum failed");
  }
}

int LldpQub::RpcCommand(std::string_view command, std::string_view argument, std::string* answer) {
  const std::lock_guard exchange(exchange_mutex_);
  if (!SendCommand(command, argument)) {
    ZLOG_ERROR("OPS00207", "Failed to send cmd");
    return -1;
  }
  ZLOG_DEBUG("Send data");
  if (!link_->WaitResponse(kAnswerSeconds)) {
    ZLOG_ERROR("OPS00202", "No data received, timeout");
    return -1;
  }
  const int length = ReceiveReply();
  if (length < 0) {
    ZLOG_ERROR("OPS00205", "Failed to recv data");
    return -1;
  }
  const std::string_view reply(received_.data(), static_cast<size_t>(length));
  if (reply.starts_with(kCommandFailed)) {
    ZLOG_ERROR("OPS00005", "Execute rpc cmd=%s error", std::string(command).c_str());
    return -1;
  }
  answer->assign(reply);
  return length;
}

// The request has no length on the wire, so it goes out in one piece.
bool LldpQub::SendCommand(std::string_view command, std::string_view argument) {
  const size_t length = command.size() + 1 + argument.size();
  if (length > sent_.size()) {
    ZLOG_DEBUG("a request of %zu bytes is longer than %zu", length, sent_.size());
    return false;
  }
  char* end = std::copy(command.begin(), command.end(), sent_.data());
  *end++ = '\n';
  std::copy(argument.begin(), argument.end(), end);
  return link_->Send(sent_.data(), length);
}

int LldpQub::ReceiveReply() {
  ReplyHeader header{};
  if (!link_->Recv(&header, sizeof(header))) return -1;
  ZLOG_DEBUG("Data size = %" PRIu32, header.length);
  if (header.length > received_.size()) {
    Discard(header.length);
    return -1;
  }
  if (header.length > 0 && !link_->Recv(received_.data(), header.length)) return -1;
  ZLOG_DEBUG("Recv data, size=%" PRIu32, header.length);
  return static_cast<int>(header.length);
}

void LldpQub::Discard(uint32_t length) {
  if (length > kMostDiscarded) {
    ZLOG_DEBUG("a reply of %" PRIu32 " bytes is nonsense", length);
    link_->Break();
    return;
  }
  ZLOG_DEBUG("a reply of %" PRIu32 " bytes is longer than %zu and is thrown away", length, received_.size());
  for (uint32_t left = length; left > 0;) {
    const uint32_t part = std::min<uint32_t>(left, static_cast<uint32_t>(received_.size()));
    if (!link_->Recv(received_.data(), part)) return;
    left -= part;
  }
}

}  // namespace zem::Tarvik
