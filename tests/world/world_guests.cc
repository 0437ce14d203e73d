#include "tests/world/world_guests.h"

#include <array>
#include <chrono>

#include "app/ctxteng/channel/ctxt_channel.h"
#include "app/ctxteng/idfw/idfw.h"
#include "bench/guest-events/sim_endvat_lib.h"
#include "platform/core/uuid.h"
#include "proto/covedb/covedb.pb.h"
#include "proto/covedb/firewall_objects.pb.h"
#include "sim/store/store.h"

namespace zem::world {
namespace {

constexpr const char* kFolder = "/run/orlane/guests";
constexpr uint32_t kIdentityFirewall = 5;
constexpr uint32_t kSmallCache = 2;
constexpr uint32_t kIntervalSeconds = 5;
constexpr uint32_t kMaxBackoff = 4;

// VM, session, and the manager's number of the event.
using Logon = std::tuple<std::string, uint32_t, uint32_t>;

class Channel final : public Ctxt::IEngineChannel {
 public:
  explicit Channel(AsioZemProvider& provider) : provider_(provider) {}
  void Initialize() override { Ctxt::CtxtChannel::GetInstance().Initialize(provider_); }
  void Shutdown() override { Ctxt::CtxtChannel::GetInstance().Shutdown(); }

 private:
  AsioZemProvider& provider_;
};

}  // namespace

// The identity firewall, with a note of what it is given.  The engine keeps its clients beyond their end;
// this one lets go of the real one, whose thread has to end before the clock does.
class WorldGuests::Spy final : public Ctxt::ICtxtClient, public Ctxt::IStoreUpdates {
 public:
  explicit Spy(std::shared_ptr<Ctxt::Idfw> idfw) : idfw_(std::move(idfw)) {}

  std::shared_ptr<Ctxt::Idfw> idfw() {
    std::lock_guard lock(mutex_);
    return idfw_;
  }
  void LetGo() {
    std::shared_ptr<Ctxt::Idfw> last;
    std::lock_guard lock(mutex_);
    last.swap(idfw_);
  }

  void Initialize(const CtxtClientParam& param,
                  const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store) override {
    idfw()->Initialize(param, store);
  }
  void VmPowerOnEventHandler(const std::shared_ptr<Ctxt::VmData>& vm) override {
    {
      std::lock_guard lock(mutex_);
      guests_.insert(vm->vc_uuid);
    }
    idfw()->VmPowerOnEventHandler(vm);
  }
  void VmPowerOffEventHandler(const std::shared_ptr<Ctxt::VmData>& vm) override {
    {
      std::lock_guard lock(mutex_);
      guests_.erase(vm->vc_uuid);
    }
    idfw()->VmPowerOffEventHandler(vm);
  }
  bool NetworkEventHandler(const std::shared_ptr<const Ctxt::ConnInfo>& connection,
                           const std::shared_ptr<Ctxt::VmData>& vm) override {
    return idfw()->NetworkEventHandler(connection, vm);
  }
  void SystemEventHandler(const std::shared_ptr<const Ctxt::UserSessionInfo>& session,
                          const std::shared_ptr<Ctxt::VmData>& vm) override {
    const auto client = idfw();
    const bool before = client->GetStatus();
    client->SystemEventHandler(session, vm);
    const bool after = client->GetStatus();
    constexpr std::array<uint32_t, 5> kTypes = {0, 1, 2, 4, 3};
    const uint32_t type = session->session_type < kTypes.size() ? kTypes[session->session_type] : 0;
    const Logon logon{vm->vc_uuid, static_cast<uint32_t>(session->session_id), type};
    std::lock_guard lock(mutex_);
    if (before && after) {
      ++given_[logon];
    } else if (before || after) {
      ++unsure_[logon];
    }
  }
  void Shutdown() override { idfw()->Shutdown(); }

  void OnFeatureToggle(const orlane::zem::covedb::MonitorUpdateMsg& update) override {
    if (const auto client = idfw()) client->OnFeatureToggle(update);
  }
  void StoreBegins() override {
    if (const auto client = idfw()) client->StoreBegins();
  }
  void StoreComplete() override {
    if (const auto client = idfw()) client->StoreComplete();
  }

  std::set<std::string> guests() {
    std::lock_guard lock(mutex_);
    return guests_;
  }
  std::map<Logon, uint64_t> given() {
    std::lock_guard lock(mutex_);
    return given_;
  }
  std::map<Logon, uint64_t> unsure() {
    std::lock_guard lock(mutex_);
    return unsure_;
  }

 private:
  std::mutex mutex_;  // guards what follows
  std::shared_ptr<Ctxt::Idfw> idfw_;
  std::set<std::string> guests_;
  std::map<Logon, uint64_t> given_;
  std::map<Logon, uint64_t> unsure_;  // while the toggle changed
};

WorldGuests::WorldGuests(sim::Manager& manager, sim::Store& store, bool small_cache)
    : store_(store),
      small_cache_(small_cache),
      receiver_(manager, [this] { return starts_; }),
      world_(kFolder),
      life_(world_, firewall_,
            {.guests = [this] { return spy_->guests(); },
             .turn = [this](bool on) { Turn(on); },
             .wants = [](const sim::guest::Guest& guest) { return guest.windows(); }}) {}

WorldGuests::~WorldGuests() = default;

void WorldGuests::StartAgent(AsioZemProvider& provider,
                             const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store) {
  ++starts_;
  receiver_.Forget();
  Ctxt::CtxtCore& core = Ctxt::CtxtCore::GetInstance();
  spy_ = std::make_shared<Spy>(std::make_shared<Ctxt::Idfw>(core.guests(), Ctxt::CtxtChannel::GetInstance()));
  Ctxt::EngineParts parts;
  parts.make_library = [this] { return sim::guest::MakeSimEndvatLib(world_); };
  parts.firewall = &firewall_;
  parts.channel = std::make_shared<Channel>(provider);
  parts.clients.idfw = spy_;
  parts.clients.idfw_updates = spy_;
  parts.clients.is_well_known_sid = [spy = spy_](const std::string& sid) {
    return spy->idfw()->IsUserIgnored(sid);
  };
  Ctxt::CtxtCore::Settings settings{
      .listen_port = "48655", .worker_threads = "2", .max_events_per_vm = "50", .client_ids = Ctxt::kIdfwBit};
  settings.param.timerInterval = kIntervalSeconds;
  settings.param.maxBackoffCounter = kMaxBackoff;
  if (small_cache_) settings.param.cacheLimit = kSmallCache;
  settings.param.wellKnownSids = {Ctxt::test::kSystemAccount};
  core.Initialize(settings, parts, store, nullptr);
  core.WaitForStart();
  if (world_.guests().empty()) life_.AddGuests();
}

void WorldGuests::StopAgent() {
  Ctxt::CtxtCore::GetInstance().Shutdown(Ctxt::kIdfwBit);
  spy_->LetGo();
}

void WorldGuests::Change(std::mt19937_64& random) {
  const auto number = [&random](int below) {
    return static_cast<int>(random() % static_cast<unsigned>(below));
  };
  for (int steps = 1 + number(8); steps > 0; --steps) life_.Step(number);
}

void WorldGuests::Turn(bool on) {
  orlane::zem::covedb::SecurityFeatureToggleMsg toggle;
  toggle.mutable_id()->set_first(1);
  toggle.mutable_id()->set_second(2);
  if (on) {
    auto* const feature = toggle.add_feature();
    feature->set_feature(kIdentityFirewall);
    feature->set_status(true);
  }
  orlane::zem::covedb::ModifyRequestMsg request;
  auto* const change = request.add_modify_msg();
  if (on) {
    change->mutable_put_msg()->set_object_type(orlane::zem::covedb::SECURITY_FEATURE_TOGGLE);
    change->mutable_put_msg()->set_object(toggle.SerializeAsString());
  } else {
    change->mutable_delete_msg()->set_object_type(orlane::zem::covedb::SECURITY_FEATURE_TOGGLE);
    change->mutable_delete_msg()->set_object(toggle.SerializeAsString());
  }
  // A second deletion is refused, which changes nothing.
  static_cast<void>(store_.Modify({request}));
}

void WorldGuests::Misanswer(std::mt19937_64& random) {
  using Kind = sim::LogonReceiver::Kind;
  constexpr std::array kKinds = {Kind::kStatus, Kind::kNever, Kind::kGarbage, Kind::kOtherType,
                                 Kind::kForeignId};
  if (random() % 4 == 0) return receiver_.SetDelay(std::chrono::milliseconds(random() % 20000));
  receiver_.SetAnswers({.kind = kKinds[random() % kKinds.size()],
                        .status = 5,
                        .text = "busy",
                        .count = static_cast<int>(1 + random() % 4)});
}

void WorldGuests::Calm() {
  receiver_.SetAnswers({});
  receiver_.SetDelay(Duration::zero());
  life_.Calm();
}

std::vector<std::string> WorldGuests::Check(const std::function<void()>& settle) {
  std::vector<std::string> lines = life_.Check(settle);
  for (const std::string& violation : receiver_.state().violations) lines.push_back("logons: " + violation);
  CheckLogons(&lines);
  return lines;
}

// Each logon that the rules keep has arrived once; the others are counted.
void WorldGuests::CheckLogons(std::vector<std::string>* lines) {
  const sim::LogonReceiver::State state = receiver_.state();
  std::map<Logon, uint64_t> received;
  uint64_t events = 0;
  for (const sim::LogonReceiver::Batch& batch : state.kept) {
    if (batch.session != starts_) continue;
    for (const auto& event : batch.events.login_logoff_event()) {
      ++received[{UuidText(event.vm_id()), event.session_id(), event.event_type()}];
      ++events;
    }
  }
  const std::map<Logon, uint64_t> given = spy_->given();
  const std::map<Logon, uint64_t> unsure = spy_->unsure();
  const auto count = [](const std::map<Logon, uint64_t>& in, const Logon& logon) {
    const auto found = in.find(logon);
    return found == in.end() ? uint64_t{0} : found->second;
  };
  for (const auto& [logon, times] : received) {
    if (times <= count(given, logon) + count(unsure, logon)) continue;
    lines->push_back("the manager got a logon of " + std::get<0>(logon) + " more often than it was");
  }
  uint64_t sum = 0;
  for (const auto& [logon, times] : given) sum += times;
  uint64_t open = 0;
  for (const auto& [logon, times] : unsure) open += times;
  const Ctxt::Idfw::Counts counts = spy_->idfw()->Count();
  const uint64_t accounted = events + counts.dropped + counts.replaced + counts.waiting;
  if (sum > accounted || events + counts.dropped > sum + open) {
    lines->push_back(std::to_string(sum) + " logons, of which the manager got " + std::to_string(events) +
                     ", " + std::to_string(counts.dropped) + " were dropped, " +
                     std::to_string(counts.replaced) + " replaced, and " + std::to_string(counts.waiting) +
                     " wait");
  }
}

}  // namespace zem::world
