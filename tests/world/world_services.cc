#include "tests/world/world_services.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <utility>

#include "app/ipreputation/ip_reputation_comm_mgr.h"
#include "app/lldp/lldp.h"
#include "app/supportbundle/support_bundle_client.h"
#include "framework/hostapi/lum_client.h"
#include "platform/core/poll.h"
#include "platform/core/thread.h"
#include "platform/core/unix_socket.h"
#include "platform/provider/provider.h"
#include "platform/provider/work_group.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/firewall_objects.pb.h"
#include "proto/lldp/lldp.pb.h"
#include "sim/control/json.h"
#include "sim/manager/manager.h"
#include "sim/store/store.h"

namespace zem::world {
namespace {

namespace storage = orlane::zem::covedb;
namespace fs = std::filesystem;
using std::chrono::seconds;

constexpr const char* kLldp = "LldpVertical";
constexpr const char* kBundles = "SupportBundle";
constexpr const char* kReputation = "ZEM-IpReputationEventService";
constexpr const char* kSocket = "/etc/orlane/zem-tarvik/LldpLum";
constexpr auto kCallTimeout = seconds(60);
constexpr auto kLong = std::chrono::hours(1);
constexpr const char* kScripts = "/run/world-bundles";
constexpr const char* kBundlePrefix = "zem-sbundle-";
constexpr int kAtManager = 3;

// Each takes its next exit code from a file; the first makes the bundle in any case.
constexpr const char* kCollect =
    "b=/tmp/zem-sbundle-$$.tgz; echo x > $b; echo $b; exit $(cat /run/world-bundles/collect.exit)";
constexpr const char* kUpload =
    "cat > /dev/null; [ -s \"$1\" ] || exit 9; echo taken; exit $(cat /run/world-bundles/upload.exit)";

void Write(const std::string& name, const std::string& text) {
  fs::create_directories(kScripts);
  std::ofstream(std::string(kScripts) + "/" + name, std::ios::trunc) << text << '\n';
}

const cJSON* Member(const cJSON* object, const char* name) {
  return cJSON_GetObjectItemCaseSensitive(object, name);
}

// The name of the first interface of an answer.
std::string InterfaceOf(const std::string& answer) {
  const sim::Json json(cJSON_Parse(answer.c_str()));
  const char* const name =
      cJSON_GetStringValue(Member(cJSON_GetArrayItem(Member(json.get(), "interface"), 0), "name"));
  return name != nullptr ? name : "";
}

// Whether an answer is the first byte of one that has an interface: the tag of that field, which is no
// message.
bool IsFirstByte(const std::string& answer) {
  const sim::Json json(cJSON_Parse(answer.c_str()));
  const char* const payload = cJSON_GetStringValue(Member(Member(json.get(), "raw_payload"), "payload"));
  return payload != nullptr && std::string_view(payload) == "Cg==";
}

int StatusOf(const std::string& answer) {
  const sim::Json json(cJSON_Parse(answer.c_str()));
  const cJSON* const status = Member(json.get(), "status");
  return status != nullptr ? status->valueint : -1;
}

}  // namespace

/// The host API client over a process that is played by a thread.
class PlayedHostApi final : public Tarvik::LumClient {
 public:
  enum class Fault { kClose, kSilent, kHalf, kNonsense, kWrongLength, kEmpty, kDie, kCount };

  using LumClient::LumClient;
  ~PlayedHostApi() override { End(); }

  bool TerminateLumPy() override {
    End();
    return true;
  }
  bool SpawnLumPy() override {
    if (!TerminateLumPy()) return false;
    if (refusals > 0) {
      --refusals;
      return false;
    }
    ::unlink(kSocket);
    listener_ = OpenUnixStream();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(kSocket).copy(address.sun_path, kMaxUnixPath);
    if (!deaf &&
        (::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
         ::listen(listener_.get(), 4) != 0)) {
      return false;
    }
    stop_.Reset(::eventfd(0, EFD_CLOEXEC));
    running_ = true;
    thread_ = std::make_unique<NativeThread>(NativeThread::Options{.name = "zem-lum"}, [this] {
      Serve();
      running_ = false;
    });
    return true;
  }
  bool GetZemLumPid() override { return true; }

  bool running() const { return running_; }
  void SetFault(Fault fault) { fault_ = static_cast<int>(fault); }

  std::atomic<int> refusals{0};
  std::atomic<bool> deaf{false};
  /// Before the answer to the question for `interface` goes out with a length of one byte; set before the
  /// start.
  std::function<void(const std::string& interface)> on_cut;

 private:
  void End() {
    if (!thread_) return;
    const uint64_t one = 1;
    static_cast<void>(::write(stop_.get(), &one, sizeof(one)) == 0);
    thread_->Join();
    thread_.reset();
    listener_.Reset();
  }

  bool Wait(int fd) const {
    pollfd waits[2] = {{fd, POLLIN, 0}, {stop_.get(), POLLIN, 0}};
    while (PollUntil(waits, 2, Clock::Process().Now() + kLong) <= 0) {
    }
    return waits[1].revents == 0;
  }

  void Serve() {
    while (Wait(deaf ? -1 : listener_.get())) {
      const UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (client && !ServeClient(client.get())) return;
    }
  }

  // Returns false when the process ends.
  bool ServeClient(int client) {
    while (Wait(client)) {
      char request[65536];
      const ssize_t got = ::recv(client, request, sizeof(request), 0);
      if (got <= 0) return true;
      const std::string text(request, static_cast<size_t>(got));
      std::string answer = "ok";
      orlane::zem::lldp::LldpInterfacesRequestMsg question;
      if (text.starts_with("rpcquery\n")) {
        question.ParseFromString(text.substr(9));
        orlane::zem::lldp::LldpInterfacesMsg interfaces;
        interfaces.add_interface()->set_name(question.interface());
        answer = interfaces.SerializeAsString();
      }
      const auto fault = static_cast<Fault>(fault_.exchange(static_cast<int>(Fault::kCount)));
      if (fault == Fault::kDie) return false;
      if (fault == Fault::kClose) return true;
      if (fault == Fault::kSilent) continue;
      if (fault == Fault::kEmpty) answer.clear();
      uint32_t header[2] = {0xdeadbeef, static_cast<uint32_t>(answer.size())};
      if (fault == Fault::kWrongLength) {
        header[1] = 1;
        if (!question.interface().empty()) on_cut(question.interface());
      }
      if (fault == Fault::kNonsense) header[1] = 0x7fffffff;
      std::string reply(reinterpret_cast<const char*>(header), sizeof(header));
      reply += answer;
      if (fault == Fault::kHalf) reply.resize(reply.size() - 1);
      static_cast<void>(::send(client, reply.data(), reply.size(), MSG_NOSIGNAL) == 0);
    }
    return true;
  }

  std::atomic<int> fault_{static_cast<int>(Fault::kCount)};
  std::atomic<bool> running_{false};
  UniqueFd listener_;
  UniqueFd stop_;
  std::unique_ptr<NativeThread> thread_;
};

WorldServices::WorldServices(sim::Manager& manager, sim::Store& store) : manager_(manager), store_(store) {
  Write("collect.sh", kCollect);
  Write("upload.sh", kUpload);
  Write("collect.exit", "0");
  Write("upload.exit", "0");
}

WorldServices::~WorldServices() = default;

void WorldServices::StartAgent(AsioZemProvider& provider,
                               std::shared_ptr<covedb::CoveDbClientInterface> client) {
  work_group_ = new WorkGroup("framework", provider.metrics(), WorkGroup::kUnbounded);
  work_group_->Start(3);
  api_ = new PlayedHostApi(provider, work_group_);
  api_->on_cut = [this](const std::string& interface) {
    const std::lock_guard lock(mutex_);
    cut_.insert(interface);
  };
  lldp_ = std::make_unique<Tarvik::Lldp>(provider);
  lldp_->Start(api_);
  api_->Start();
  reputation_ = std::make_unique<Tarvik::IpReputationCommMgr>(provider, std::move(client));
  static_cast<void>(reputation_->Start());
  bundles_ = std::make_unique<Tarvik::SupportBundleClient>(
      provider, Tarvik::BundleScripts{"/bin/sh", std::string(kScripts) + "/collect.sh",
                                      std::string(kScripts) + "/upload.sh"});
  static_cast<void>(bundles_->Start());
}

void WorldServices::StopAgent() {
  bundles_->Stop();
  lldp_->Stop();
  api_->Stop();
  if (api_->running()) violations_.push_back("the host API's process outlives the agent");
  reputation_->Stop();
  work_group_->Stop();
  bundles_.reset();
  reputation_.reset();
  lldp_.reset();
  api_.reset();
  work_group_.reset();
}

int WorldServices::Send(const std::string& vertical, const std::string& member, const std::string& text,
                        const std::string& question) {
  sim::Manager::SendRequest request;
  request.vertical = vertical;
  request.member = member;
  request.text = text;
  request.timeout = kCallTimeout;
  const int number = ++sent_;
  {
    const std::lock_guard lock(mutex_);
    calls_[number].question = question;
  }
  const std::string error = manager_.Send(request, [this, number, vertical](const sim::HostAnswer& answer) {
    const std::lock_guard lock(mutex_);
    Call& call = calls_[number];
    ++call.ends;
    if (!answer.status.ok()) return;
    call.answer = sim::AnswerJson(vertical, answer);
    // The agent passes on what it is given, so a cut answer arrives as its first byte and nothing else.
    const bool as_given =
        cut_.contains(call.question) ? IsFirstByte(call.answer) : InterfaceOf(call.answer) == call.question;
    if (vertical == kLldp && !as_given)
      violations_.push_back("the question for " + call.question + " got the answer " + call.answer);
  });
  if (!error.empty()) {
    const std::lock_guard lock(mutex_);
    calls_[number].ends = 1;
  }
  return number;
}

std::string WorldServices::AnswerOf(int call) {
  const std::lock_guard lock(mutex_);
  return calls_[call].answer;
}

void WorldServices::AskNeighbours() {
  const std::string interface = "nic" + std::to_string(sent_);
  question_ = Send(kLldp, "LldpInterfacesRequestMsg", "interface: \"" + interface + "\"", interface);
}

void WorldServices::PutCount(uint32_t count) {
  storage::ModifyRequestMsg request;
  storage::IpReputationRecordEventMsg record;
  record.set_record_count(count);
  auto* const change = request.add_modify_msg();
  if (count != 0) {
    change->mutable_put_msg()->set_object_type(storage::IP_REPUTATION_RECORD_EVENT);
    change->mutable_put_msg()->set_object(record.SerializeAsString());
  } else {
    change->mutable_delete_msg()->set_object_type(storage::IP_REPUTATION_RECORD_EVENT);
    change->mutable_delete_msg()->set_object(record.SerializeAsString());
  }
  if (store_.Modify({request}).ok()) count_ = count;
}

void WorldServices::Ask(std::mt19937_64& random) {
  const std::string id = "generate_id: \"b" + std::to_string(bundle_) + "\"";
  switch (random() % 6) {
    case 0:
      Send(kBundles, "BundleGenerationRequestMsg", "generate_id: \"b" + std::to_string(++bundle_) + "\"", "");
      return;
    case 1:
      Send(kBundles, "BundleStatusRequestMsg", id, "");
      return;
    case 2:
      Send(kBundles, "BundleGenerationCancellationRequestMsg", id, "");
      return;
    case 3:
      PutCount(static_cast<uint32_t>(random() % 4));
      return;
    default:
      AskNeighbours();
  }
}

void WorldServices::Disturb(std::mt19937_64& random) {
  constexpr const char* kCodes[] = {"0", "4", "27", "64", "124"};
  switch (random() % 6) {
    case 0:
      if (api_) api_->refusals = static_cast<int>(random() % 5);
      return;
    case 1:
      if (api_) api_->deaf = random() % 2 == 0;
      return;
    case 2:
      Write(random() % 2 == 0 ? "collect.exit" : "upload.exit", kCodes[random() % std::size(kCodes)]);
      return;
    default:
      if (api_) {
        api_->SetFault(
            static_cast<PlayedHostApi::Fault>(random() % static_cast<int>(PlayedHostApi::Fault::kCount)));
      }
  }
}

void WorldServices::Calm() {
  if (api_) {
    api_->refusals = 0;
    api_->deaf = false;
    api_->SetFault(PlayedHostApi::Fault::kCount);
  }
  Write("collect.exit", "0");
  Write("upload.exit", "0");
  calm_since_ = Clock::Process().Now();
  question_.reset();
  generation_.reset();
  status_.reset();
  reports_before_.reset();
}

std::vector<std::string> WorldServices::Check() {
  std::vector<std::string> lines;
  CheckNeighbours(&lines);
  CheckBundle(&lines);
  CheckReputation(&lines);
  if (lines.empty()) CheckCalls(&lines);
  const std::lock_guard lock(mutex_);
  lines.insert(lines.end(), violations_.begin(), violations_.end());
  return lines;
}

void WorldServices::CheckNeighbours(std::vector<std::string>* lines) {
  if (question_ && !AnswerOf(*question_).empty()) {
    if (!api_->running()) lines->push_back("the host API has answered and does not run");
    return;
  }
  lines->push_back("a question about neighbours has no answer yet");
  AskNeighbours();
}

// A bundle that was in work before ends first.
void WorldServices::CheckBundle(std::vector<std::string>* lines) {
  if (!generation_ || StatusOf(AnswerOf(*generation_)) != static_cast<int>(Tarvik::BundleStatus::kInWork)) {
    lines->push_back("no bundle is begun");
    generation_ = Send(kBundles, "BundleGenerationRequestMsg",
                       "generate_id: \"b" + std::to_string(++bundle_) + "\"", "");
    status_.reset();
    return;
  }
  const int status = status_ ? StatusOf(AnswerOf(*status_)) : -1;
  if (status != kAtManager) {
    lines->push_back("the bundle has the status " + std::to_string(status));
    status_ =
        Send(kBundles, "BundleStatusRequestMsg", "generate_id: \"b" + std::to_string(bundle_) + "\"", "");
    return;
  }
  for (const auto& entry : fs::directory_iterator("/tmp")) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with(kBundlePrefix)) lines->push_back("a bundle is left: " + name);
  }
}

void WorldServices::CheckReputation(std::vector<std::string>* lines) {
  const Duration calm = Clock::Process().Now() - calm_since_;
  if (!reports_before_) {
    // What the agent knew before the store was back may have been reported until now.
    if (calm < seconds(30)) return lines->push_back("reports of before may come");
    reports_before_ = manager_.record().received_count();
  }
  const auto reports = manager_.record().ReceivedFrom(kReputation, *reports_before_);
  uint64_t told = 0;
  for (const sim::Received& each : reports) {
    if (!each.publish) continue;
    const sim::Json json(cJSON_Parse(each.json.c_str()));
    const cJSON* const count = Member(Member(json.get(), "event_request"), "record_count");
    told = count != nullptr ? static_cast<uint64_t>(count->valuedouble) : 0;
  }
  if (count_ == 0) {
    if (told != 0) lines->push_back("a count of " + std::to_string(told) + " is reported, there is none");
    if (calm < seconds(160)) lines->push_back("a report may come");
  } else if (told != count_) {
    lines->push_back("the last report has " + std::to_string(told) + ", the store " + std::to_string(count_));
  }
}

void WorldServices::CheckCalls(std::vector<std::string>* lines) {
  const std::lock_guard lock(mutex_);
  for (const auto& [number, call] : calls_) {
    if (call.ends > 1) lines->push_back("call " + std::to_string(number) + " of a service ended twice");
  }
}

}  // namespace zem::world
