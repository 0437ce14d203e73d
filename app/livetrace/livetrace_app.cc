#include "app/livetrace/livetrace_app.h"

#include <algorithm>
#include <chrono>

#include "app/livetrace/livetrace_uploader.h"
#include "framework/dataplane/lcp_adapter.h"
#include "framework/log/log.h"
#include "mpaclient/proxy/transport_node.h"
#include "platform/core/uuid.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "proto/lcp/lcp.pb.h"

// Messages of the manager, what the dataplane tells, the timer and the uploads all meet here.  Each changes
// the table under the mutex, and sends only behind it.  An upload is never waited for where it could hold
// anybody: a session that goes has its upload told to end, and the next look at the table joins what has
// ended.

namespace zem::Tarvik {
namespace {

using orlane::zem::livetrace::LivetraceBarrierMsg;
using orlane::zem::livetrace::LivetraceInvalidationMsg;
using orlane::zem::livetrace::LivetraceMsg;
using orlane::zem::livetrace::LivetraceObservationMsg;
using orlane::zem::livetrace::LivetraceOnboardMsg;
using orlane::zem::livetrace::LivetraceRequestMsg;
using orlane::zem::livetrace::LivetraceResponseMsg;
using orlane::zem::livetrace::LivetraceStatusMsg;
using std::chrono::seconds;

constexpr LogSource kLog{"tarvik", "livetrace"};

constexpr const char* kName = "livetrace";
constexpr const char* kRoutingKey = "com.orlane.zem.livetrace.Livetrace";
constexpr const char* kStatusType = "com.orlane.zem.livetrace.Livetrace.LivetraceStatusMsg";
constexpr const char* kResponseType = "com.orlane.zem.livetrace.Livetrace.LivetraceResponseMsg";
constexpr const char* kBarrierType = "com.orlane.zem.livetrace.Livetrace.LivetraceBarrierMsg";
constexpr const char* kOnboardType = "com.orlane.zem.livetrace.Livetrace.LivetraceOnboardMsg";
constexpr const char* kInvalidationType = "com.orlane.zem.livetrace.Livetrace.LivetraceInvalidationMsg";
constexpr const char* kResponseFailure = "Failed to serialize response message";

constexpr auto kPeriod = seconds(2);
constexpr auto kStatusPatience = seconds(2);
constexpr auto kSessionLife = seconds(900);
constexpr int32_t kTimedOut = 5;
constexpr size_t kMostObservations = 10'000;
constexpr size_t kMostObservedBytes = size_t{8} << 20;
constexpr std::ptrdiff_t kMostUploads = 32;
constexpr uint8_t kLcpMessageFrame = 1;

std::weak_ptr<LivetraceApp>& TheInstance() {
  static std::weak_ptr<LivetraceApp> instance;
  return instance;
}

std::mutex& InstanceMutex() {
  static std::mutex mutex;
  return mutex;
}

template <class Message>
void FillNodeId(Message* message) {
  if (message->has_transport_node_id()) return;
  if (const auto id = TransportNodeId()) SetUuid(*id, message->mutable_transport_node_id());
}

// Takes what a session has observed; nothing when that is nothing.
std::optional<LivetraceResponseMsg> TakeObservations(LivetraceSession* session) {
  if (session->observations.empty()) return std::nullopt;
  LivetraceResponseMsg response;
  auto& list = *response.mutable_trace_response()->mutable_observation();
  for (LivetraceObservationMsg& observation : session->observations) list.Add(std::move(observation));
  session->observations.clear();
  session->observed_bytes = 0;
  return response;
}

}  // namespace

std::shared_ptr<LivetraceApp> LivetraceApp::Create(AsioZemProvider& provider,
                                                   boost::intrusive_ptr<LcpAdapter> lcp_adapter,
                                                   Settings settings) {
  const std::lock_guard lock(InstanceMutex());
  if (auto present = TheInstance().lock()) {
    ZLOG_INFO("App instance is already present");
    return present;
  }
  std::shared_ptr<LivetraceApp> made(new LivetraceApp(provider, std::move(lcp_adapter), std::move(settings)));
  TheInstance() = made;
  return made;
}

std::shared_ptr<LivetraceApp> LivetraceApp::Instance() {
  const std::lock_guard lock(InstanceMutex());
  return TheInstance().lock();
}

LivetraceApp::LivetraceApp(AsioZemProvider& provider, boost::intrusive_ptr<LcpAdapter> lcp_adapter,
                           Settings settings)
    : provider_(provider),
      lcp_adapter_(std::move(lcp_adapter)),
      captures_(std::move(settings.captures)),
      upload_command_(std::move(settings.upload_command)),
      vertical_(provider, GetVertical(VerticalId::kLivetrace),
                {.intercept = [this](const VerticalRecord& record) {
                  Receive(record);
                  return true;
                }}) {}

LivetraceApp::~LivetraceApp() {
  if (running()) Stop();
}

void LivetraceApp::Start() {
  ZLOG_INFO("%s: Start", kName);
  RemoveLeftCaptures();
  {
    const std::lock_guard lock(mutex_);
    running_ = true;
  }
  vertical_.Start();
  if (vertical_.connected()) return Init();
  const std::lock_guard lock(mutex_);
  if (initialized_) return;
  connect_timer_ = provider_.timers().ScheduleRepeated(
      kPeriod,
      [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->TickConnect();
      },
      TimerOptions::Default);
}

void LivetraceApp::TickConnect() {
  if (vertical_.connected()) Init();
}

void LivetraceApp::Init() {
  {
    const std::lock_guard lock(mutex_);
    if (!running_ || initialized_) return;
    initialized_ = true;
    if (connect_timer_) connect_timer_->Cancel();
  }
  const auto node_id = TransportNodeId();
  ZLOG_INFO("Livetrace App is initialized at transport node: %s", node_id ? UuidText(*node_id).c_str() : "");
  if (lcp_adapter_ == nullptr) {
    ZLOG_ERROR("OPS00006", "Failed to init due to _lcpAdapter is NULL");
    return;
  }
  // The adapter's mutex comes before this one's.
  lcp_adapter_->RegisterHandler(LivetraceMsg::descriptor()->full_name(),
                                [weak = weak_from_this()](const google::protobuf::Message& message) {
                                  if (const auto self = weak.lock())
                                    self->DpPacketHandler(static_cast<const LivetraceMsg&>(message));
                                });
  const std::lock_guard lock(mutex_);
  if (!running_) return;
  evict_timer_ = provider_.timers().ScheduleRepeated(
      kPeriod,
      [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->Evict();
      },
      TimerOptions::Default);
}

void LivetraceApp::Stop() {
  ZLOG_INFO("%s: Stop", kName);
  vertical_.Stop();
  std::list<std::shared_ptr<LivetraceUploader>> uploads;
  {
    const std::lock_guard lock(mutex_);
    running_ = false;
    initialized_ = false;
    if (connect_timer_) connect_timer_->Cancel();
    if (evict_timer_) evict_timer_->Cancel();
    table_.Sweep([this](const SessionPtr& session) {
      RetireLocked(session);
      return true;
    });
    uploads.swap(uploads_);
  }
  for (const auto& upload : uploads) upload->Join();
}

bool LivetraceApp::running() const {
  const std::lock_guard lock(mutex_);
  return running_;
}

// A capture from before this start belongs to no session of ours, and nobody else would remove it.
void LivetraceApp::RemoveLeftCaptures() const {
  for (const std::string& capture : captures_.RemoveAll())
    ZLOG_INFO("Removed the capture %s, which was left behind", captures_.PathOf(capture).c_str());
}

std::vector<std::pair<uint64_t, std::string>> LivetraceApp::ListSessions() const {
  const std::lock_guard lock(mutex_);
  return table_.Names();
}

int LivetraceApp::GetSessionName(uint64_t id, std::string* name) const {
  const std::lock_guard lock(mutex_);
  const std::string* const found = table_.NameOf(id);
  if (found == nullptr) return -1;
  *name = *found;
  return 0;
}

// --- The manager.

void LivetraceApp::Receive(const VerticalRecord& record) {
  const char* const type = BusMessageTypeName(record.type());
  ZLOG_INFO("Got Message from manager Type: %s", type);
  if (record.raw.routing_key != nullptr) ZLOG_DEBUG("Routing Key %s", record.raw.routing_key);
  if (record.raw.content_type != nullptr) ZLOG_DEBUG("Content Type %s", record.raw.content_type);
  ZLOG_DEBUG("Payload Len %ld", static_cast<long>(record.raw.payload_len));
  switch (record.type()) {
    case kRmqMpRpcRequest:
      return TakeRequest(record);
    case kRmqMpPublish:
      return TakePublish(record);
    case kRmqClientRegistrationAck:
      // Requests follow at once; a look at the connection every two seconds would come behind their statuses.
      Init();
      [[fallthrough]];
    default:
      ZLOG_DEBUG("Unhandled message type: %s", type);
  }
}

std::optional<LivetraceMsg> LivetraceApp::Parse(const VerticalRecord& record) const {
  LivetraceMsg message;
  const std::string_view payload = record.payload();
  if (message.ParseFromArray(payload.data(), static_cast<int>(payload.size()))) return message;
  ZLOG_ERROR("MPA00105", "Failed to parse request message");
  return std::nullopt;
}

// This is the thread of all verticals: a link that takes no more may not hold it.
bool LivetraceApp::SendDown(const LivetraceMsg& message) const {
  orlane::zem::lcp::LcpDpMsg frame;
  frame.set_version(1);
  *frame.mutable_livetrace() = message;
  return lcp_adapter_ != nullptr && lcp_adapter_->TrySend(kLcpMessageFrame, frame);
}

void LivetraceApp::TakeRequest(const VerticalRecord& record) {
  const auto message = Parse(record);
  if (!message) return;
  if (message->has_request() && !OpenSession(record, message->request())) {
    ZLOG_ERROR("OPS07001", "Failed to compose RPC response");
    return;
  }
  if (!SendDown(*message)) ZLOG_ERROR("OPS07002", "Failed to send request msg to DP");
}

void LivetraceApp::TakePublish(const VerticalRecord& record) {
  const auto message = Parse(record);
  if (!message) return;
  if (message->has_delete_request()) DeleteSession(message->delete_request().metadata().session_id());
  if (!SendDown(*message)) ZLOG_ERROR("OPS07002", "Failed to send delete msg to DP");
}

void LivetraceApp::DeleteSession(uint64_t id) {
  std::vector<SessionPtr> sessions;
  const std::lock_guard lock(mutex_);
  if (!table_.Erase(id, &sessions)) {
    ZLOG_WARN("Session 0x%lx not exists", id);
    return;
  }
  for (const SessionPtr& session : sessions) RetireLocked(session);
  ZLOG_INFO("Session 0x%lx is deleted", id);
}

bool LivetraceApp::OpenSession(const VerticalRecord& record, const LivetraceRequestMsg& request) {
  if (record.raw.header == nullptr) {
    ZLOG_WARN("AMQP header is missing");
    return false;
  }
  if (record.header.correlation_id.empty()) {
    ZLOG_ERROR("OPS07001", "Failed to build response message");
    return false;
  }
  const auto session = std::make_shared<LivetraceSession>();
  session->id = request.metadata().session_id();
  session->created = Clock::Process().Now();
  session->requested = true;
  session->answer = Answer{record.header.correlation_id, record.header.reply_to};
  if (request.has_upload_id() && request.has_upload_target()) {
    const auto& target = request.upload_target();
    session->upload = {request.upload_id(), target.server(), target.thumbprint(), target.port()};
  }
  std::optional<LivetraceResponseMsg> overridden;
  {
    const std::lock_guard lock(mutex_);
    if (!InsertLocked(session, request, &overridden)) return false;
  }
  if (overridden) Publish(kResponseType, kResponseFailure, *overridden);
  ZLOG_DEBUG("RPC response inserted for session 0x%lx", session->id);
  return true;
}

bool LivetraceApp::InsertLocked(const SessionPtr& session, const LivetraceRequestMsg& request,
                                std::optional<LivetraceResponseMsg>* overridden) {
  SessionPtr* const slot =
      table_.MakeSlot(session->id, request.metadata().side() & 0xff, request.session_name());
  if (slot == nullptr) {
    ZLOG_WARN("Too many sessions, 0x%lx is refused", session->id);
    return false;
  }
  if (*slot != nullptr) {
    if ((*slot)->requested) {
      ZLOG_WARN("Session 0x%lx exists", session->id);
      return false;
    }
    ZLOG_INFO("Session 0x%lx will be overridden by a request from MP", session->id);
    *overridden = TakeObservations(slot->get());
    RetireLocked(*slot);
  }
  *slot = session;
  return true;
}

// --- The dataplane.

void LivetraceApp::DpPacketHandler(const LivetraceMsg& message) {
  ZLOG_DEBUG("Dump LcpDpMsg: %s", message.ShortDebugString().c_str());
  if (message.has_response()) {
    TakeResponse(message.response());
  } else if (message.has_status()) {
    TakeStatus(message.status());
  } else if (message.has_invalidation()) {
    TakeInvalidation(message.invalidation());
  } else if (message.has_barrier()) {
    TakeBarrier(message.barrier());
  } else if (message.has_onboard()) {
    TakeOnboard(message.onboard());
  }
}

void LivetraceApp::TakeResponse(const LivetraceResponseMsg& original) {
  if (original.has_count_response() || original.has_datapath_stats_response()) {
    LivetraceResponseMsg response = original;
    if (response.has_count_response()) {
      FillNodeId(response.mutable_count_response());
    } else {
      FillNodeId(response.mutable_datapath_stats_response());
    }
    Publish(kResponseType, kResponseFailure, response);
  } else if (original.trace_response().observation_size() > 0) {
    if (original.trace_response().observation_size() > 1) {
      ZLOG_DEBUG("Only the first of %d observations is kept", original.trace_response().observation_size());
    }
    KeepObservation(original.trace_response().observation(0));
  }
}

void LivetraceApp::KeepObservation(const LivetraceObservationMsg& original) {
  LivetraceObservationMsg observation = original;
  FillNodeId(&observation);
  const size_t size = observation.ByteSizeLong();
  const std::lock_guard lock(mutex_);
  const SessionPtr session = table_.Find(observation.metadata());
  if (session == nullptr) {
    ZLOG_ERROR("OPS07003", "Session 0x%lx not found", observation.metadata().session_id());
    return;
  }
  if (session->observations.size() >= kMostObservations ||
      session->observed_bytes + size > kMostObservedBytes) {
    if (++session->observations_dropped == 1)
      ZLOG_WARN("Session 0x%lx has too many observations, more are dropped", session->id);
    return;
  }
  session->observed_bytes += size;
  session->observations.push_back(std::move(observation));
}

void LivetraceApp::TakeStatus(const LivetraceStatusMsg& status) {
  SessionPtr session;
  std::optional<Answer> answer;
  {
    const std::lock_guard lock(mutex_);
    session = table_.Find(status.metadata());
    if (session == nullptr) {
      ZLOG_ERROR("OPS07003", "Session 0x%lx not found", status.metadata().session_id());
      return;
    }
    answer.swap(session->answer);
    session->status_sent = true;
  }
  std::string payload;
  if (!status.SerializeToString(&payload)) {
    ZLOG_ERROR("OPS07004", "Failed to realize response message");
  } else if (const int result = answer ? SendAnswer(*answer, std::move(payload)) : -1; result != 0) {
    ZLOG_ERROR("MPA00103", "Failed to send msg to MP: %d", result);
  } else {
    ZLOG_INFO("Session 0x%lx has status sent", session->id);
    return;
  }
  const std::lock_guard lock(mutex_);
  table_.Clear(session);
  RetireLocked(session);
  ZLOG_INFO("Session 0x%lx is deleted", session->id);
}

void LivetraceApp::TakeInvalidation(const LivetraceInvalidationMsg& invalidation) {
  {
    const std::lock_guard lock(mutex_);
    if (const SessionPtr session = table_.Find(invalidation.metadata())) {
      table_.Clear(session);
      RetireLocked(session);
    } else {
      ZLOG_ERROR("OPS07003", "Session 0x%lx not found", invalidation.metadata().session_id());
    }
  }
  Publish(kInvalidationType, "Failed to serialize invalidation message", invalidation);
}

void LivetraceApp::TakeOnboard(const LivetraceOnboardMsg& original) {
  LivetraceOnboardMsg onboard = original;
  FillNodeId(&onboard);
  const auto session = std::make_shared<LivetraceSession>();
  session->id = onboard.metadata().session_id();
  session->created = Clock::Process().Now();
  session->status_sent = true;
  {
    const std::lock_guard lock(mutex_);
    SessionPtr* const slot = table_.MakeSlot(session->id, 0, "");
    if (slot == nullptr || *slot != nullptr) {
      ZLOG_WARN("Session 0x%lx %s", session->id, slot == nullptr ? "is one too many" : "exists");
      return;
    }
    *slot = session;
  }
  ZLOG_DEBUG("RPC response inserted for session 0x%lx", session->id);
  Publish(kOnboardType, "Failed to serialize onboarding message", onboard);
}

void LivetraceApp::TakeBarrier(const LivetraceBarrierMsg& message) {
  Ending ending{message, std::nullopt};
  FillNodeId(&ending.barrier);
  std::shared_ptr<LivetraceUploader> refused;
  bool dropped = false;
  {
    const std::lock_guard lock(mutex_);
    const SessionPtr session = table_.Find(message.metadata());
    // A second barrier of a session that has ended tells nothing of it.
    if (session != nullptr && !session->completed) {
      if (session->uploader != nullptr) {
        ZLOG_WARN("Session 0x%lx is uploading, its second barrier is dropped", session->id);
        dropped = true;
      } else if (!session->upload.server.empty()) {
        if (!CaptureFolder::IsName(message.pcap_file_name())) {
          ZLOG_ERROR("OPS07005", "Failed to figure out pcap filename from barrier msg, session 0x%lx",
                     session->id);
          return;
        }
        ending.response = TakeObservations(session.get());
        refused = BeginUploadLocked(session, ending);
        if (refused == nullptr) return;
      } else {
        ending.response = TakeObservations(session.get());
      }
      session->completed = !dropped;
    }
  }
  if (refused) {
    refused->RemoveFile();
  } else {
    RemoveUnwanted(message.pcap_file_name());
  }
  if (!dropped) Publish(ending);
}

// A capture that nobody has asked for, or whose session has gone, would stay for ever.
void LivetraceApp::RemoveUnwanted(const std::string& capture) const {
  const std::string path = captures_.PathOf(capture);
  {
    const std::lock_guard lock(mutex_);
    const auto sends = [&path](const auto& upload) {
      return !upload->done() && upload->local_path() == path;
    };
    if (std::ranges::any_of(uploads_, sends)) return;
  }
  if (captures_.Remove(capture)) ZLOG_INFO("Removed the capture %s, which no session uploads", path.c_str());
}

std::shared_ptr<LivetraceUploader> LivetraceApp::BeginUploadLocked(const SessionPtr& session,
                                                                   const Ending& ending) {
  const LivetraceUploader::File file{captures_.PathOf(ending.barrier.pcap_file_name()),
                                     "api/v1/livetraces/" + std::to_string(session->id) + "/capturefile/"};
  const auto told = std::make_shared<Ending>(ending);
  auto uploader = std::make_shared<LivetraceUploader>(upload_command_, file, session->upload,
                                                      [weak = weak_from_this(), session, told] {
                                                        if (const auto self = weak.lock())
                                                          self->UploadDone(session, *told);
                                                      });
  const auto running = [](const auto& upload) { return !upload->done(); };
  if (std::ranges::count_if(uploads_, running) >= kMostUploads) {
    ZLOG_WARN("Too many uploads, the capture of session 0x%lx is not sent", session->id);
  } else if (running_ && uploader->Start()) {
    session->uploader = uploader;
    uploads_.push_back(uploader);
    return nullptr;
  }
  return uploader;
}

void LivetraceApp::UploadDone(const SessionPtr& session, const Ending& ending) {
  {
    const std::lock_guard lock(mutex_);
    session->completed = true;
    if (session->deleted) ZLOG_ERROR("OPS07003", "Session 0x%lx alraeady deleted", session->id);
  }
  Publish(ending);
}

// --- The way to the manager.

void LivetraceApp::Publish(const Ending& ending) {
  if (ending.response && !Publish(kResponseType, kResponseFailure, *ending.response)) return;
  Publish(kBarrierType, "Failed to serialize barrier message", ending.barrier);
}

bool LivetraceApp::Publish(const char* type, const char* failure, const google::protobuf::Message& message) {
  std::string payload;
  if (!message.SerializeToString(&payload)) {
    ZLOG_ERROR("OPS07004", "%s", failure);
    return false;
  }
  auto outgoing = vertical_.PrepareAs(kRmqClientPublish, type, std::move(payload), "", "");
  outgoing.record.SetApp(kName, "unused").SetRoutingKey(kRoutingKey);
  const int result = VerticalClient::ResultOf(vertical_.SendPrepared(outgoing));
  if (result != 0) {
    ZLOG_ERROR("MPA00103", "Failed to send message to MP: %d", result);
    return false;
  }
  ZLOG_DEBUG("Sent message to MP: %s", message.ShortDebugString().c_str());
  return true;
}

int LivetraceApp::SendAnswer(const Answer& answer, std::string payload) {
  return VerticalClient::ResultOf(vertical_.SendPrepared(vertical_.PrepareAs(
      kRmqClientRpcResponse, kStatusType, std::move(payload), answer.correlation_id, answer.reply_to)));
}

// --- The end of sessions.

void LivetraceApp::RetireLocked(const SessionPtr& session) {
  session->deleted = true;
  session->answer.reset();
  session->observations.clear();
  if (session->uploader == nullptr) return;
  session->uploader->Stop();
  // It holds the session.
  session->uploader = nullptr;
}

void LivetraceApp::Evict() {
  std::vector<std::pair<uint64_t, Answer>> unanswered;
  const TimePoint now = Clock::Process().Now();
  {
    const std::lock_guard lock(mutex_);
    table_.Sweep([&](const SessionPtr& session) {
      const Duration age = now - session->created;
      if (!session->status_sent && age >= kStatusPatience) {
        ZLOG_INFO("Evict session 0x%lx due to timeout for RPC", session->id);
        if (session->answer) unanswered.emplace_back(session->id, std::move(*session->answer));
      } else if (session->completed || age >= kSessionLife) {
        ZLOG_INFO("Evict session 0x%lx for completion or aging", session->id);
      } else {
        return false;
      }
      RetireLocked(session);
      return true;
    });
  }
  for (const auto& [id, answer] : unanswered) {
    LivetraceStatusMsg status;
    status.mutable_metadata()->set_session_id(id);
    status.set_status(kTimedOut);
    std::string payload;
    if (!status.SerializeToString(&payload)) {
      ZLOG_ERROR("OPS07004", "Failed to serialize timeout message");
    } else if (const int result = SendAnswer(answer, std::move(payload)); result != 0) {
      ZLOG_ERROR("MPA00103", "Error to send msg to MP: %d", result);
    }
  }
  JoinEndedUploads();
}

void LivetraceApp::JoinEndedUploads() {
  std::list<std::shared_ptr<LivetraceUploader>> ended;
  {
    const std::lock_guard lock(mutex_);
    for (auto upload = uploads_.begin(); upload != uploads_.end();) {
      const auto next = std::next(upload);
      if ((*upload)->done()) ended.splice(ended.end(), uploads_, upload);
      upload = next;
    }
  }
  for (const auto& upload : ended) upload->Join();
}

}  // namespace zem::Tarvik
