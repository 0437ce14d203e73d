#include "sim/idfw/logon_receiver.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "proto/context/idfw_vertical.pb.h"
#include "sim/manager/manager.h"
#include "sim/manager/send_errors.h"

namespace zem::sim {
namespace {

using orlane::zem::context::idfw::IdfwHostUnifiedMsg;
using orlane::zem::context::idfw::IdfwMpUnifiedMsg;
using orlane::zem::context::idfw::LoginLogoffEvent;
using orlane::zem::context::idfw::LoginLogoffEventAckMsg;

constexpr const char* kVertical = "IDFW-Vertical";
constexpr const char* kBatchType = "com.orlane.zem.context.idfw.LoginLogoffEventMsg";
constexpr const char* kAckType = "com.orlane.zem.context.idfw.LoginLogoffEventAckMsg";
constexpr const char* kNoAckType = "com.orlane.zem.context.HealthStatusAckMsg";
constexpr const char* kGarbage = "\x0a\xff\xff\xff\xff garbage";
constexpr size_t kBatchesKept = 2000;
constexpr size_t kViolationsKept = 100;
constexpr uint64_t kForeign = 1000000;
constexpr uint32_t kLastEventType = 4;

std::optional<uint64_t> NumberIn(const std::string& text) {
  uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [last, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && last == end ? std::optional(number) : std::nullopt;
}

// What is missing in an event; null when nothing is.
const char* Missing(const LoginLogoffEvent& event) {
  if (!event.user().has_sid() || !event.user().has_user_name() || !event.user().has_domain_name())
    return "a whole user";
  if (!event.has_session_id()) return "a session";
  if (event.has_event_type() && (event.event_type() == 0 || event.event_type() > kLastEventType))
    return "a known event type";
  if (!event.has_timestamp()) return "a time";
  if (!event.vm_id().has_first() || !event.vm_id().has_second()) return "a VM";
  if (!event.bios_id().has_first() || !event.bios_id().has_second()) return "a BIOS";
  return nullptr;
}

}  // namespace

LogonReceiver::LogonReceiver(Manager& manager, std::function<uint64_t()> session)
    : manager_(manager), session_(std::move(session)) {
  manager_.SetPeer(kVertical, [this](const PeerMessage& message) { return Take(message); });
}

LogonReceiver::~LogonReceiver() { manager_.SetPeer(kVertical, {}); }

void LogonReceiver::SetAnswers(Answers answers) {
  const std::lock_guard lock(mutex_);
  answers_ = std::move(answers);
}

void LogonReceiver::SetDelay(Duration delay) {
  AnswerRule rule;
  rule.delay = delay;
  manager_.SetRule(kVertical, false, rule);
}

LogonReceiver::State LogonReceiver::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

void LogonReceiver::Forget() {
  const std::lock_guard lock(mutex_);
  state_ = {.violations = std::move(state_.violations)};
}

void LogonReceiver::Violation(const std::string& text) {
  if (state_.violations.size() < kViolationsKept) state_.violations.push_back(text);
}

LogonReceiver::Answers LogonReceiver::TakeAnswers() {
  Answers answers = answers_;
  if (answers_.count > 0 && --answers_.count == 0) answers_ = {};
  return answers;
}

std::optional<std::string> LogonReceiver::Take(const PeerMessage& message) {
  const uint64_t session = session_();
  const std::lock_guard lock(mutex_);
  IdfwMpUnifiedMsg unified;
  Batch batch;
  const auto id = NumberIn(message.correlation_id);
  if (message.publish || !id || !unified.ParseFromString(message.payload) || unified.type() != kBatchType ||
      !batch.events.ParseFromString(unified.raw_payload().payload())) {
    Violation("a message that is no batch of logons: " + unified.type() + " " + message.correlation_id);
    return std::nullopt;
  }
  batch.session = session;
  batch.id = *id;
  batch.bytes = unified.raw_payload().payload();
  ++state_.received;
  auto known = std::find_if(state_.kept.rbegin(), state_.kept.rend(), [&](const Batch& kept) {
    return kept.session == batch.session && kept.id == batch.id;
  });
  if (known == state_.kept.rend()) {
    Judge(batch);
    ++state_.batches;
    state_.events += static_cast<uint64_t>(batch.events.login_logoff_event_size());
    batch.first = Clock::Process().WallNow();
    state_.kept.push_back(std::move(batch));
    if (state_.kept.size() > kBatchesKept) state_.kept.pop_front();
    known = state_.kept.rbegin();
  } else if (known->bytes != batch.bytes) {
    Violation("batch " + std::to_string(batch.id) + " came again with other events");
  }
  ++known->times;
  const Answers answers = TakeAnswers();
  if (answers.kind == Kind::kOk && !std::exchange(known->acknowledged, true))
    state_.acknowledged += static_cast<uint64_t>(known->events.login_logoff_event_size());
  if (answers.kind == Kind::kForeignId) SendForeign(*id);
  if (answers.kind == Kind::kNever || answers.kind == Kind::kForeignId) return std::nullopt;
  return Answer(answers);
}

void LogonReceiver::Judge(const Batch& batch) {
  if (std::exchange(last_session_, batch.session) != batch.session) may_fall_ = true;
  if (batch.id < last_id_ && !std::exchange(may_fall_, false))
    Violation("batch " + std::to_string(batch.id) + " after " + std::to_string(last_id_));
  last_id_ = batch.id;
  if (batch.events.login_logoff_event().empty()) Violation("an empty batch " + std::to_string(batch.id));
  for (const LoginLogoffEvent& event : batch.events.login_logoff_event()) {
    if (const char* const missing = Missing(event))
      Violation("an event without " + std::string(missing) + ": " + event.ShortDebugString());
  }
}

std::string LogonReceiver::Answer(const Answers& answers) {
  LoginLogoffEventAckMsg ack;
  ack.set_status_code(answers.kind == Kind::kStatus ? answers.status : 0);
  if (answers.kind == Kind::kStatus && !answers.text.empty()) ack.set_error_msg(answers.text);
  IdfwHostUnifiedMsg unified;
  unified.set_type(answers.kind == Kind::kOtherType ? kNoAckType : kAckType);
  unified.mutable_raw_payload()->set_payload(answers.kind == Kind::kGarbage ? kGarbage
                                                                            : ack.SerializeAsString());
  return unified.SerializeAsString();
}

void LogonReceiver::SendForeign(uint64_t id) {
  LoginLogoffEventAckMsg ack;
  ack.set_status_code(0);
  orlane::zem::messaging::RawPayloadMsg raw;
  raw.set_payload(ack.SerializeAsString());
  Manager::SendRequest request;
  request.vertical = kVertical;
  request.member = "raw_payload";
  request.text = raw.ShortDebugString();
  request.type = kAckType;
  request.correlation_id = std::to_string(id + kForeign);
  request.timeout = std::chrono::seconds(1);
  const std::string error = manager_.Send(request, [](const HostAnswer&) {});
  if (!error.empty() && error != kNoMaster) Violation("a foreign acknowledgement was not sent: " + error);
}

}  // namespace zem::sim
