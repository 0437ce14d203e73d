#include "sim/manager/manager.h"

#include <algorithm>
#include <array>

#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/json_util.h>

#include "platform/core/uuid.h"
#include "platform/provider/timer.h"
#include "proto/messaging/appinit.pb.h"
#include "proto/switching/switching_unified.pb.h"
#include "sim/manager/send_errors.h"

namespace zem::sim {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using orlane::zem::messaging::RawPayloadMsg;

class ErrorText final : public google::protobuf::io::ErrorCollector {
 public:
  void AddError(int line, google::protobuf::io::ColumnNumber column, const std::string& message) override {
    if (text_.empty()) text_ = std::to_string(line + 1) + ":" + std::to_string(column + 1) + ": " + message;
  }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

// Returns an empty text when `text` is a `message` in text format, otherwise what is wrong with it.
std::string ParseText(const std::string& text, Message* message) {
  ErrorText errors;
  google::protobuf::TextFormat::Parser parser;
  parser.RecordErrorsTo(&errors);
  return parser.ParseFromString(text, message) ? "" : errors.text();
}

std::string ToJson(const Message& message) {
  std::string json;
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  const auto status = google::protobuf::util::MessageToJsonString(message, &json, options);
  return status.ok() ? json : "{}";
}

std::unique_ptr<Message> New(const Message& prototype) { return std::unique_ptr<Message>(prototype.New()); }

// The member of a vertical whose messages travel unparsed.
constexpr std::string_view kRawMember = "RawPayloadMsg";
// Shows what travels unparsed as the message that it is.
std::string UnifiedJson(const Message& unified) {
  const Message* const raw = FindRawMessage(unified, TypeOf(unified));
  const Message* const payload = SetMember(unified);
  if (raw == nullptr || payload == nullptr) return ToJson(unified);
  const auto content = New(*raw);
  if (!content->ParseFromString(static_cast<const RawPayloadMsg*>(payload)->payload())) {
    return ToJson(unified);
  }
  return ToJson(*content);
}

constexpr const char* kVifVertical = "SwitchingVertical";

constexpr std::array kReports = {"HostConfigAckMsg", "TransportNodeEventMsg", "ChecksumMsg",
                                 "PktCapHostToManagerMsg"};

bool IsReport(const Message& message) {
  return std::find(kReports.begin(), kReports.end(), message.GetDescriptor()->name()) != kReports.end();
}

}  // namespace

// Passes what one APH's services receive to the manager, together with the APH's name.
class Manager::Sink final : public MpSink {
 public:
  Sink(Manager* manager, Aph* aph) : manager_(manager), aph_(aph) {}

  void OnPublish(const std::string& vertical, const std::string& host,
                 const GenericUnifiedMsg& message) override {
    bool app_init = false;
    manager_->Receive(*aph_, vertical, host, message, true, &app_init);
    if (const PeerHandler peer = manager_->PeerOf(vertical)) {
      (void)peer({host, message.ctrl_header().correlation_id(), true, message.payload()});
    }
  }
  void OnRequest(const std::string& vertical, const std::string& host, const GenericUnifiedMsg& message,
                 rpc::CallHandle<GenericUnifiedMsg> call) override {
    bool app_init = false;
    manager_->Receive(*aph_, vertical, host, message, false, &app_init);
    manager_->Answer(aph_, vertical, host, message, app_init, std::move(call));
  }

 private:
  Manager* const manager_;
  Aph* const aph_;
};

Manager::Manager(Options options) : options_(std::move(options)), record_(options_.remembered) {}

Manager::~Manager() {
  std::map<std::string, std::unique_ptr<Aph>> ended;
  {
    std::lock_guard lock(mutex_);
    ended.swap(aphs_);
  }
}

void Manager::StartProxy() {
  std::lock_guard lock(mutex_);
  if (proxy_) return;
  proxy_ = std::make_shared<Proxy>(options_.info_endpoint, options_.forwarding_endpoint);
  PublishLocked();
}

// The proxy's destructor joins its thread, so it has to run after the lock is released (`ended` is declared
// before it).
void Manager::StopProxy() {
  std::shared_ptr<Proxy> ended;
  std::lock_guard lock(mutex_);
  ended.swap(proxy_);
}

bool Manager::proxy_running() const { return proxy() != nullptr; }

std::shared_ptr<Proxy> Manager::proxy() const {
  std::lock_guard lock(mutex_);
  return proxy_;
}

void Manager::PublishLocked() {
  if (!proxy_) return;
  ProxyInfo info;
  info.transport_node_id = options_.transport_node_id;
  info.version = options_.version;
  for (const auto& [id, master] : listed_) info.aphs.push_back({id, master});
  proxy_->Publish(info);
}

void Manager::PublishRaw(const ProxyInfo& info) {
  if (const auto running = proxy()) running->Publish(info);
}

void Manager::AddAph(const std::string& id, bool master) {
  auto aph = std::make_unique<Aph>(id, options_.forwarding_endpoint,
                                   [this](Aph* self) { return std::make_unique<Sink>(this, self); });
  std::lock_guard lock(mutex_);
  aphs_[id] = std::move(aph);
  if (master) {
    for (auto& [other, flag] : listed_) flag = false;
    served_.clear();
  }
  listed_[id] = master;
  PublishLocked();
}

bool Manager::RemoveAph(const std::string& id, bool keep_listed) {
  std::unique_ptr<Aph> ended;
  {
    std::lock_guard lock(mutex_);
    const auto found = aphs_.find(id);
    if (found == aphs_.end()) return false;
    ended = std::move(found->second);
    aphs_.erase(found);
    if (!keep_listed) {
      listed_.erase(id);
      PublishLocked();
    }
  }
  ended.reset();
  return true;
}

bool Manager::SetMaster(const std::string& id) {
  std::lock_guard lock(mutex_);
  if (!id.empty() && listed_.count(id) == 0) return false;
  for (auto& [aph, master] : listed_) master = aph == id;
  served_.clear();
  PublishLocked();
  return true;
}

std::vector<std::pair<std::string, bool>> Manager::Aphs() const {
  std::lock_guard lock(mutex_);
  return {listed_.begin(), listed_.end()};
}

std::string Manager::Master() const {
  std::lock_guard lock(mutex_);
  for (const auto& [id, master] : listed_) {
    if (master) return id;
  }
  return {};
}

void Manager::SetRule(const std::string& vertical, bool app_init, AnswerRule rule) {
  std::lock_guard lock(mutex_);
  rules_[{vertical, app_init}] = std::move(rule);
}

void Manager::SetPeer(const std::string& vertical, PeerHandler handler) {
  std::lock_guard lock(mutex_);
  peers_[vertical] = std::move(handler);
}

PeerHandler Manager::PeerOf(const std::string& vertical) const {
  std::lock_guard lock(mutex_);
  const auto found = peers_.find(vertical);
  return found == peers_.end() ? PeerHandler() : found->second;
}

AnswerRule Manager::TakeRule(const std::string& vertical, bool app_init) {
  std::lock_guard lock(mutex_);
  for (const std::string& name : {vertical, std::string()}) {
    const auto found = rules_.find({name, app_init});
    if (found == rules_.end()) continue;
    AnswerRule rule = found->second;
    if (found->second.count > 0 && --found->second.count == 0) rules_.erase(found);
    return rule;
  }
  return {};
}

void Manager::Receive(const Aph& aph, const std::string& vertical, const std::string& host,
                      const GenericUnifiedMsg& message, bool publish, bool* app_init) {
  Received received;
  received.aph = aph.id();
  received.vertical = vertical;
  received.host = host;
  received.publish = publish;
  received.correlation_id = message.ctrl_header().correlation_id();
  received.tracking_id = UuidText(message.cookies().tracking_id());
  const ManagerVertical* const known = FindManagerVertical(vertical);
  const auto unified = New(known->mp_prototype());
  if (unified->ParseFromString(message.payload())) {
    received.type = TypeOf(*unified);
    received.json = UnifiedJson(*unified);
    const Message* const member = SetMember(*unified);
    *app_init = dynamic_cast<const orlane::zem::messaging::appinit::AppInitMsg*>(member) != nullptr;
  } else {
    received.type = "unparsable";
    received.json = "{}";
  }
  record_.AddReceived(std::move(received));
}

void Manager::Answer(Aph* aph, const std::string& vertical, const std::string& host,
                     const GenericUnifiedMsg& request, bool app_init,
                     rpc::CallHandle<GenericUnifiedMsg> call) {
  const AnswerRule rule = TakeRule(vertical, app_init);
  const ManagerVertical* const known = FindManagerVertical(vertical);
  GenericUnifiedMsg answer;
  *answer.mutable_ctrl_header() = request.ctrl_header();
  *answer.mutable_cookies() = request.cookies();
  if (rule.kind == AnswerRule::Kind::kServe && !app_init && vertical == kVifVertical &&
      AnswerVif(aph, request, answer, rule.delay, call)) {
    return;
  }
  const auto unified = New(known->host_prototype());
  switch (rule.kind) {
    case AnswerRule::Kind::kNever:
      return;
    case AnswerRule::Kind::kStatus:
      break;
    case AnswerRule::Kind::kGarbage:
      answer.set_payload("\x0a\xff\xff\xff\xff garbage");
      break;
    case AnswerRule::Kind::kWrongType:
      answer.set_payload("");
      break;
    case AnswerRule::Kind::kText:
      if (!ParseText(rule.text, unified.get()).empty()) return;
      answer.set_payload(unified->SerializeAsString());
      break;
    case AnswerRule::Kind::kServe:
      if (app_init) {
        const FieldDescriptor* const field = FindMember(*unified, "app_init_config");
        if (field == nullptr) return;
        auto* const config = static_cast<orlane::zem::messaging::appinit::AppInitConfigMsg*>(
            unified->GetReflection()->MutableMessage(unified.get(), field));
        config->set_sender(aph->id());
        SetType(unified.get(), WireTypeName(*field->message_type()));
      } else if (const PeerHandler peer = PeerOf(vertical)) {
        const auto served = peer({host, request.ctrl_header().correlation_id(), false, request.payload()});
        if (!served) return;
        answer.set_payload(*served);  // a scenario's garbage, too
        break;
      } else {
        const auto asked = New(known->mp_prototype());
        if (!asked->ParseFromString(request.payload())) return;
        const Message* const member = SetMember(*asked);
        const FieldDescriptor* const field =
            member != nullptr ? FindMember(*unified, member->GetDescriptor()->name()) : nullptr;
        if (field == nullptr) return;
        // A pure report is accepted without being echoed: the same message in the other direction would be a
        // request.
        const Message* const raw = FindRawMessage(*asked, TypeOf(*asked));
        if (!IsReport(raw != nullptr ? *raw : *member)) {
          unified->GetReflection()->MutableMessage(unified.get(), field)->CopyFrom(*member);
          SetType(unified.get(), TypeOf(*asked));
        }
      }
      answer.set_payload(unified->SerializeAsString());
      break;
  }
  auto send = [this, vertical, app_init, rule, answer, call, id = aph->id()]() mutable {
    if (rule.kind == AnswerRule::Kind::kStatus) {
      call.Close(rule.status, "refused by the scenario");
      return;
    }
    const bool sent = call.Finish(answer);
    if (!sent || !app_init || rule.kind != AnswerRule::Kind::kServe) return;
    std::lock_guard lock(mutex_);
    const auto listed = listed_.find(id);
    if (listed != listed_.end() && listed->second) ++served_[vertical];
  };
  if (rule.delay > Duration::zero()) {
    aph->provider().timers().Schedule(rule.delay, send);
  } else {
    send();
  }
}

bool Manager::AnswerVif(Aph* aph, const GenericUnifiedMsg& request, const GenericUnifiedMsg& header,
                        Duration delay, rpc::CallHandle<GenericUnifiedMsg> call) {
  orlane::zem::switching::SwitchingMpUnifiedMsg asked;
  if (!vifs_.serves() || !asked.ParseFromString(request.payload()) || !asked.has_vif()) return false;
  VifTable::Answer answer = vifs_.Ask(asked.vif());
  if (!answer.message) return true;
  orlane::zem::switching::SwitchingHostUnifiedMsg unified;
  unified.set_allocated_vif(answer.message.release());
  SetType(&unified, TypeOf(asked));
  GenericUnifiedMsg message = header;
  message.set_payload(unified.SerializeAsString());
  auto send = [call, message]() mutable { call.Finish(message); };
  if (delay + answer.delay > Duration::zero()) {
    aph->provider().timers().Schedule(delay + answer.delay, send);
  } else {
    send();
  }
  return true;
}

std::string Manager::Send(const SendRequest& request, std::function<void(HostAnswer)> done) {
  const ManagerVertical* const vertical = FindManagerVertical(request.vertical);
  if (vertical == nullptr) return "no vertical " + request.vertical;
  if (vertical->make_stub == nullptr) return request.vertical + " serves no calls";
  const auto unified = New(vertical->host_prototype());
  const Message* const raw = FindRawMessage(*unified, request.member);
  const FieldDescriptor* const field =
      FindMember(*unified, raw != nullptr ? kRawMember : std::string_view(request.member));
  if (field == nullptr) return "no message " + request.member + " in " + unified->GetTypeName();
  Message* const member = unified->GetReflection()->MutableMessage(unified.get(), field);
  const auto content = raw != nullptr ? New(*raw) : nullptr;
  Message* const spoken = content ? content.get() : member;
  const std::string error = ParseText(request.text, spoken);
  if (!error.empty()) return spoken->GetTypeName() + " " + error;
  if (content) static_cast<RawPayloadMsg*>(member)->set_payload(content->SerializeAsString());
  SetType(unified.get(), request.type.empty() ? WireTypeName(*spoken->GetDescriptor()) : request.type);
  GenericUnifiedMsg message;
  message.set_payload(unified->SerializeAsString());
  const std::string id = request.correlation_id.value_or(RandomUuidText());
  if (request.with_header) message.mutable_ctrl_header()->set_correlation_id(id);
  const auto tracking = ParseUuid(id);
  SetUuid(tracking ? *tracking : RandomUuid(), message.mutable_cookies()->mutable_tracking_id());

  const std::string target = request.aph.empty() ? Master() : request.aph;
  std::lock_guard lock(mutex_);
  const auto aph = aphs_.find(target);
  if (aph == aphs_.end()) return request.aph.empty() ? kNoMaster : "no APH " + target;
  record_.AddSent(request.member, member->SerializeAsString());
  aph->second->Call(*vertical, message, request.publish, request.timeout, std::move(done));
  return {};
}

std::string AnswerJson(const std::string& vertical, const HostAnswer& answer) {
  const ManagerVertical* const known = FindManagerVertical(vertical);
  const auto unified = New(known->mp_prototype());
  if (!unified->ParseFromString(answer.message.payload())) return "{}";
  return UnifiedJson(*unified);
}

std::map<std::string, uint64_t> Manager::served_app_inits() const {
  std::lock_guard lock(mutex_);
  return served_;
}

}  // namespace zem::sim
