#include "platform/upm/upm_service.h"

#include <list>
#include <mutex>
#include <utility>

#include "covedbclient/covedb_client_interface.h"
#include "covedbclient/statements.h"
#include "framework/log/log.h"
#include "platform/core/condition.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/thread.h"
#include "platform/rpc/status.h"
#include "platform/upm/profile_tables.h"

// The store's callbacks only change tables.  At each barrier, behind which the tables are what the store has,
// the service's thread compares them with what each registration was told last.  A connection to the store
// begins with all objects: they fill new tables, which replace the old ones at the first barrier.  A store
// without any profile gives no barrier, so a connection that stays silent counts as an empty one.

namespace zem::upm {
namespace {

constexpr LogSource kLog{"tarvik", "ctxteng"};
constexpr uint32_t kModuleId = 20;
constexpr auto kSilentConnection = std::chrono::seconds(30);

struct Registration {
  uint32_t entity_type = 0;
  std::vector<uint32_t> types;
  ProfileCallback callback;
  // Owned by the service's thread.
  ProfileTables::Effective told;
  uint64_t told_connection = 0;  // 0: nothing was told yet
};

}  // namespace

class UPMService::Impl : public std::enable_shared_from_this<Impl> {
 public:
  // Once, when there is a user.
  void Watch(const std::shared_ptr<covedb::CoveDbClientInterface>& client) {
    {
      std::lock_guard lock(mutex_);
      if (watching_ || registrations_.empty()) return;
      watching_ = true;
      store_ = client;
    }
    covedb::CoveDbClientInterface& store = *client;
    const std::weak_ptr<Impl> weak = weak_from_this();
    // Gives false when an earlier service of the process has registered them.
    static_cast<void>(store.RegisterMonitorCallback(
        kModuleId,
        [weak](const covedb::MonitorUpdateMsg& update) {
          if (const auto self = weak.lock()) self->TakeUpdate(update);
        },
        [weak] {
          if (const auto self = weak.lock()) self->TakeBarrier();
        },
        covedb::kDefaultVDb));
    store.AddChannelStatusCallback([weak](bool up) {
      if (const auto self = weak.lock()) self->TakeChannel(up);
    });
    const auto statements =
        covedb::MonitorStatementsFor({orlane::zem::covedb::PROFILE, orlane::zem::covedb::PROFILE_BINDING});
    if (!store.ConfigureMonitor(statements, {}, kModuleId, covedb::kDefaultVDb)) {
      ZLOG_WARN("Profiles cannot be watched in the store");
    }
  }

  void StartThread() {
    std::lock_guard lock(mutex_);
    if (thread_.joinable()) return;
    stopping_ = false;
    NativeThread::Options options;
    options.name = "upm";
    thread_ = NativeThread(std::move(options), [this] { Run(); });
  }

  void StopThread() {
    NativeThread thread;
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
      changed_.NotifyAll();
      thread = std::move(thread_);
    }
    if (thread.joinable()) thread.Join();
  }

  void Add(Registration registration) {
    std::lock_guard lock(mutex_);
    registrations_.push_back(std::move(registration));
    dirty_ = true;
    changed_.NotifyAll();
  }

  ProfileTables::Effective Effective(uint32_t entity_type, const std::vector<uint32_t>& types) const {
    std::lock_guard lock(mutex_);
    return tables_.Of(entity_type, types);
  }

 private:
  void TakeUpdate(const covedb::MonitorUpdateMsg& update) {
    bool taken = false;
    {
      std::lock_guard lock(mutex_);
      if (!replaying_ && tables_.IsRepetition(update)) repeated_ = true;
      heard_ = true;
      taken = (replaying_ ? incoming_ : tables_).Apply(update);
    }
    if (!taken) ZLOG_WARN("A profile of the store cannot be read");
  }

  void TakeBarrier() {
    std::shared_ptr<covedb::CoveDbClientInterface> store;
    {
      std::lock_guard lock(mutex_);
      const bool repeated = std::exchange(repeated_, false) && !replaying_;
      Complete();
      if (repeated) store = store_.lock();
    }
    if (store) AskForAll(*store);
  }

  // The stream of the store was opened anew within one connection, and what was deleted in the gap was not
  // told.
  void AskForAll(covedb::CoveDbClientInterface& store) {
    std::list<covedb::ObjectRequestMsg> requests(2);
    requests.front().set_object_type(orlane::zem::covedb::PROFILE);
    requests.back().set_object_type(orlane::zem::covedb::PROFILE_BINDING);
    const bool asked = store.Get(
        requests,
        [weak = weak_from_this()](const std::list<covedb::TypedObjectMsg>& objects,
                                  const rpc::Status& status) {
          if (const auto self = weak.lock(); self && status.ok()) self->TakeAll(objects);
        },
        covedb::kDefaultVDb);
    if (!asked) ZLOG_DEBUG("The store is away; it sends all profiles when it is back");
  }

  void TakeAll(const std::list<covedb::TypedObjectMsg>& objects) {
    ProfileTables all;
    for (const covedb::TypedObjectMsg& object : objects) {
      covedb::MonitorUpdateMsg update;
      update.set_object_type(object.object_type());
      update.set_object(object.object());
      if (!all.Apply(update)) ZLOG_WARN("A profile of the store cannot be read");
    }
    std::lock_guard lock(mutex_);
    if (replaying_) return;  // the connection is another one by now
    tables_ = std::move(all);
    ++connection_;
    dirty_ = true;
    changed_.NotifyAll();
  }

  void TakeChannel(bool up) {
    std::lock_guard lock(mutex_);
    if (up == up_) return;
    up_ = up;
    replaying_ = true;
    incoming_ = {};
    heard_ = false;
    silent_at_ = Clock::Process().Now() + kSilentConnection;
    changed_.NotifyAll();
  }

  // With the mutex: the tables are what the store has.
  void Complete() {
    if (replaying_) {
      tables_ = std::exchange(incoming_, {});
      replaying_ = false;
      ++connection_;
    }
    dirty_ = true;
    changed_.NotifyAll();
  }

  void Run() {
    const LoopThread loop("upm", LoopKind::kWorker);
    std::unique_lock lock(mutex_);
    while (!stopping_) {
      if (Silent() && !changed_.WaitUntil(lock, silent_at_, [this] { return Awake() || !Silent(); })) {
        Complete();
      }
      changed_.Wait(lock, [this] { return Awake() || Silent(); });
      if (stopping_ || !dirty_) continue;
      dirty_ = false;
      if (connection_ != 0) TellAll(lock);
    }
  }

  bool Awake() const { return stopping_ || dirty_; }
  // What has begun ends with a barrier, however long it takes; the tables are not whole before it.
  bool Silent() const { return up_ && replaying_ && !heard_; }

  // A registration is never removed, so it stays where it is while the lock is free.
  void TellAll(std::unique_lock<std::mutex>& lock) {
    for (Registration& registration : registrations_) {
      const ProfileTables::Effective now = tables_.Of(registration.entity_type, registration.types);
      const bool full = registration.told_connection != connection_;
      registration.told_connection = connection_;
      lock.unlock();
      Tell(&registration, now, full);
      lock.lock();
      if (stopping_) return;
    }
  }

  static void Tell(Registration* registration, const ProfileTables::Effective& now, bool full) {
    const LoopStep step("profiles to a user");
    std::vector<ProfileUpdate> updates;
    for (const auto& [entity, profiles] : now) {
      const auto told = registration->told.find(entity);
      const bool known = told != registration->told.end();
      if (!full && known && told->second == profiles) continue;
      updates.push_back(
          {registration->entity_type, entity, profiles, known ? told->second : std::vector<Profile>()});
    }
    for (const auto& [entity, profiles] : registration->told) {
      if (now.count(entity) == 0) updates.push_back({registration->entity_type, entity, {}, profiles});
    }
    registration->told = now;
    if (!full && updates.empty()) return;
    try {
      registration->callback(updates, full);
    } catch (const std::exception& error) {
      ZLOG_WARN("A user of profiles failed: %s", error.what());
    }
  }

  mutable std::mutex mutex_;  // guards all below, except what a registration was told
  Condition changed_;
  ProfileTables tables_;
  ProfileTables incoming_;
  std::list<Registration> registrations_;
  bool watching_ = false;
  std::weak_ptr<covedb::CoveDbClientInterface> store_;
  bool repeated_ = false;  // since the last barrier the store has told what it had told already
  bool up_ = false;
  bool heard_ = false;  // this connection has brought something
  bool replaying_ = true;
  bool dirty_ = false;
  bool stopping_ = false;
  uint64_t connection_ = 0;  // of which the tables are
  TimePoint silent_at_;
  NativeThread thread_;
};

UPMService::UPMService(std::shared_ptr<covedb::CoveDbClientInterface> store)
    : store_(std::move(store)), impl_(std::make_shared<Impl>()) {}

UPMService::~UPMService() { impl_->StopThread(); }

void UPMService::Start() {
  if (!store_) return;
  impl_->StartThread();
  started_ = true;
  impl_->Watch(store_);
}

void UPMService::Stop() {
  impl_->StopThread();
  started_ = false;
}

void UPMService::Register(uint32_t entity_type, std::vector<uint32_t> types, ProfileCallback callback) {
  impl_->Add({entity_type, std::move(types), std::move(callback), {}, 0});
  if (started_) impl_->Watch(store_);
}

std::vector<ProfileUpdate> UPMService::QueryEffective(uint32_t profile_type, uint32_t entity_type) const {
  std::vector<ProfileUpdate> found;
  for (auto& [entity, profiles] : impl_->Effective(entity_type, {profile_type})) {
    found.push_back({entity_type, entity, profiles, {}});
  }
  return found;
}

}  // namespace zem::upm
