#include "sim/kafka/kafka_commands.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/util/json_util.h>

#include <filesystem>
#include <functional>
#include <initializer_list>
#include <map>
#include <utility>

#include "proto/context/ids.pb.h"
#include "proto/context/pace.pb.h"
#include "sim/control/command_options.h"
#include "sim/control/command_table.h"
#include "sim/control/hex.h"
#include "sim/control/number.h"
#include "sim/kafka/kafka_brokers.h"

namespace zem::sim {
namespace {

constexpr int kBrokers = 3;
constexpr int kMostBrokers = 9;
constexpr int kLongestSlowMs = 60000;
constexpr int64_t kPatienceSeconds = 60;

using WithBrokers = std::function<void(KafkaBrokers&, const Arguments&, const Reply&)>;

Json StateJson(const KafkaBrokers& brokers) {
  const KafkaBrokers::Counters counters = brokers.counters();
  Json result = JsonObject();
  AddMember(result.get(), "plain", brokers.plain());
  AddMember(result.get(), "tls", brokers.tls());
  AddMember(result.get(), "handshakes", counters.handshakes);
  AddMember(result.get(), "failed_handshakes", counters.failed_handshakes);
  AddMember(result.get(), "connected", counters.connected);
  return result;
}

// The messages that the agent sends.
const google::protobuf::Message* Prototype(const std::string& name) {
  using orlane::zem::context::ids::EventInfoMsg;
  using orlane::zem::context::ids::PcapInfoMsg;
  using orlane::zem::pace::PaceContextInfoMsg;
  const std::initializer_list<const google::protobuf::Message*> prototypes = {
      &EventInfoMsg::default_instance(), &PcapInfoMsg::default_instance(),
      &PaceContextInfoMsg::default_instance()};
  for (const google::protobuf::Message* prototype : prototypes) {
    if (prototype->GetDescriptor()->name() == name) return prototype;
  }
  return nullptr;
}

// A message as JSON when the bytes are one of the type; else as hexadecimal digits.
Json MessageJson(const std::string& bytes, const google::protobuf::Message* prototype) {
  std::string text;
  if (prototype != nullptr) {
    const std::unique_ptr<google::protobuf::Message> message(prototype->New());
    if (message->ParseFromString(bytes) &&
        google::protobuf::util::MessageToJsonString(*message, &text).ok()) {
      return Json(cJSON_Parse(text.c_str()));
    }
  }
  return Json(cJSON_CreateString(ToHex(bytes).c_str()));
}

void Read(const KafkaBrokers& brokers, const Arguments& arguments, const Reply& reply) {
  const CommandOptions options(arguments, {"--as", "--wait"}, {});
  if (!options.error().empty()) return reply.Fail(options.error());
  if (options.positional().size() != 1) return reply.Fail("one topic");
  const auto seconds = NumberOf<int64_t>(options.Value("--wait").value_or(std::to_string(kPatienceSeconds)));
  if (!seconds || *seconds < 0) return reply.Fail("not a number of seconds");
  const google::protobuf::Message* prototype = nullptr;
  if (const auto type = options.Value("--as")) {
    prototype = Prototype(*type);
    if (prototype == nullptr) return reply.Fail("no message " + *type);
  }
  const KafkaBrokers::Topic topic = brokers.Read(options.positional()[0], std::chrono::seconds(*seconds));
  if (!topic.error.empty()) return reply.Fail(topic.error);
  Json messages = JsonArray();
  for (const std::string& bytes : topic.messages) {
    AddItem(messages.get(), MessageJson(bytes, prototype));
  }
  Json result = JsonObject();
  AddMember(result.get(), "count", static_cast<uint64_t>(topic.messages.size()));
  AddMember(result.get(), "messages", std::move(messages));
  reply.Ok(std::move(result));
}

Json Texts(const std::vector<std::string>& texts) {
  Json list = JsonArray();
  for (const std::string& text : texts) AddItem(list.get(), text);
  return list;
}

Json Names(const std::map<std::string, std::string>& names) {
  Json object = JsonObject();
  for (const auto& [key, name] : names) AddMember(object.get(), key.c_str(), name);
  return object;
}

Json FlowJson(const FlowRecords& records) {
  Json result = JsonObject();
  AddMember(result.get(), "messages", records.messages);
  AddMember(result.get(), "bytes", records.bytes);
  AddMember(result.get(), "empty", records.empty);
  AddMember(result.get(), "sites", Texts({records.sites.begin(), records.sites.end()}));
  AddMember(result.get(), "violations", Texts(records.violations));
  Json guests = JsonArray();
  for (const auto& [id, guest] : records.guests) {
    Json item = JsonObject();
    AddMember(item.get(), "id", id);
    Json events = JsonArray();
    for (const uint32_t type : guest.vm_events) AddItem(events.get(), Json(cJSON_CreateNumber(type)));
    AddMember(item.get(), "vm_events", std::move(events));
    AddMember(item.get(), "services", Texts(guest.services));
    AddMember(item.get(), "sessions", Texts(guest.sessions));
    AddMember(item.get(), "processes", Names(guest.processes));
    AddMember(item.get(), "users", Names(guest.users));
    AddItem(guests.get(), std::move(item));
  }
  AddMember(result.get(), "guests", std::move(guests));
  return result;
}

void ShowFlow(KafkaService& service, const KafkaBrokers& brokers, const Arguments& arguments,
              const Reply& reply) {
  const KafkaBrokers::Topic topic = brokers.Read(arguments[0], std::chrono::seconds(kPatienceSeconds));
  if (!topic.error.empty()) return reply.Fail(topic.error);
  FlowRecords records = JudgeFlowRecords(topic.messages);
  reply.Ok(FlowJson(records));
  service.NoteFlowRecords(std::move(records));
}

void Start(KafkaService& service, const Arguments& arguments, const Reply& reply) {
  const auto count = NumberOf<int>(arguments.empty() ? std::to_string(kBrokers) : arguments[0]);
  if (!count || *count < 1 || *count > kMostBrokers) return reply.Fail("1 to 9 brokers");
  const auto brokers = service.Start(*count);
  if (!brokers) return reply.Fail("the brokers run");
  reply.Ok(StateJson(*brokers));
}

}  // namespace

KafkaService::KafkaService(std::string trust_store) : trust_store_(std::move(trust_store)) {}
KafkaService::~KafkaService() = default;

std::shared_ptr<KafkaBrokers> KafkaService::Start(int brokers) {
  std::lock_guard lock(mutex_);
  if (brokers_) return nullptr;
  auto started = std::make_shared<KafkaBrokers>(brokers);
  std::error_code ignored;  // a missing folder shows when the files are written
  std::filesystem::create_directories(trust_store_, ignored);
  started->WriteHostFiles(trust_store_);
  brokers_ = started;
  return started;
}

bool KafkaService::Stop() {
  std::shared_ptr<KafkaBrokers> last;
  std::lock_guard lock(mutex_);
  last.swap(brokers_);
  return last != nullptr;
}

std::shared_ptr<KafkaBrokers> KafkaService::brokers() const {
  std::lock_guard lock(mutex_);
  return brokers_;
}

std::vector<std::string> KafkaService::Draw() const {
  const auto running = brokers();
  if (!running) return {};
  const KafkaBrokers::Counters counters = running->counters();
  std::vector<std::string> lines = {"kafka: brokers at " + running->tls() + ", " +
                                    std::to_string(counters.connected) + " TLS connections, " +
                                    std::to_string(counters.failed_handshakes) + " failed handshakes"};
  std::lock_guard lock(mutex_);
  for (const auto& [id, guest] : flow_records_.guests) {
    lines.push_back("flow records: " + id + ", " + std::to_string(guest.services.size()) + " sockets of " +
                    std::to_string(guest.processes.size()) + " processes, " +
                    std::to_string(guest.sessions.size()) + " sessions of " +
                    std::to_string(guest.users.size()) + " users");
  }
  return lines;
}

void KafkaService::NoteFlowRecords(FlowRecords records) {
  std::lock_guard lock(mutex_);
  flow_records_ = std::move(records);
}

std::vector<std::string> KafkaService::Violations() const {
  std::lock_guard lock(mutex_);
  return flow_records_.violations;
}

void RegisterKafkaCommands(CommandTable& table, KafkaService& service) {
  KafkaService* const s = &service;
  const auto running = [s](WithBrokers act) {
    return [s, act = std::move(act)](const Arguments& arguments, const Reply& reply) {
      const auto brokers = s->brokers();
      if (!brokers) return reply.Fail("the brokers do not run");
      act(*brokers, arguments, reply);
    };
  };
  constexpr const char* kFaults = "down|refuses|full|stuck|wrong-authority|wrong-name|expired";
  table.Register({"start", "[BROKERS]",
                  "Starts brokers (3), plain and over TLS, and writes the host's key and certificate.", 0, 1,
                  [s](const Arguments& a, const Reply& r) { Start(*s, a, r); }});
  table.Register(
      {"stop", "", "Ends the brokers with all that they hold.", 0, 0, [s](const Arguments&, const Reply& r) {
         if (!s->Stop()) return r.Fail("the brokers do not run");
         r.Ok();
       }});
  table.Register({"state", "", "Shows the brokers' addresses, and the TLS connections.", 0, 0,
                  running([](KafkaBrokers& b, const Arguments&, const Reply& r) { r.Ok(StateJson(b)); })});
  table.Register({"authority", "", "Shows the certificate of the brokers' authority.", 0, 0,
                  running([](KafkaBrokers& b, const Arguments&, const Reply& r) {
                    r.Ok(Json(cJSON_CreateString(b.authority().c_str())));
                  })});
  table.Register({"break", kFaults, "Makes something wrong with the brokers.", 1, 1,
                  running([](KafkaBrokers& b, const Arguments& a, const Reply& r) {
                    const auto fault = BrokerFaultOf(a[0]);
                    if (!fault) return r.Fail("no fault \"" + a[0] + "\"");
                    b.Break(*fault);
                    r.Ok();
                  })});
  table.Register({"mend", kFaults, "Ends what \"break\" began.", 1, 1,
                  running([](KafkaBrokers& b, const Arguments& a, const Reply& r) {
                    const auto fault = BrokerFaultOf(a[0]);
                    if (!fault) return r.Fail("no fault \"" + a[0] + "\"");
                    b.Mend(*fault);
                    r.Ok();
                  })});
  table.Register({"slow", "MS", "Each answer of a broker takes so long; 0 ends it.", 1, 1,
                  running([](KafkaBrokers& b, const Arguments& a, const Reply& r) {
                    const auto ms = NumberOf<int>(a[0]);
                    if (!ms || *ms < 0 || *ms > kLongestSlowMs) return r.Fail("0 to 60000 ms");
                    b.SetSlow(*ms);
                    r.Ok();
                  })});
  table.Register({"read", "[--as EventInfoMsg|PcapInfoMsg|PaceContextInfoMsg] [--wait SECONDS] TOPIC",
                  "Shows what was sent to a topic: hexadecimal digits, or a message type's fields.", 1, 5,
                  running([](KafkaBrokers& b, const Arguments& a, const Reply& r) { Read(b, a, r); })});
  table.Register(
      {"flow", "TOPIC", "Shows, guest by guest, what the flow records of a topic say.", 1, 1,
       running([s](KafkaBrokers& b, const Arguments& a, const Reply& r) { ShowFlow(*s, b, a, r); })});
}

}  // namespace zem::sim
