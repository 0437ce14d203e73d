#include "app/zemda/records/store_records.h"

#include <chrono>
#include <mutex>
#include <utility>

#include "app/zemda/base/interruption.h"
#include "app/zemda/records/covedb_connection_handler.h"
#include "framework/log/log.h"
#include "platform/core/condition.h"
#include "platform/rpc/status.h"
#include "proto/covedb/covedb.pb.h"

namespace ZemDa {
namespace {

namespace store = orlane::zem::covedb;

constexpr zem::LogSource kLog{"tarvik", "zemda"};

constexpr int kWaits = 5;
constexpr auto kWait = std::chrono::seconds(2);
constexpr uint32_t kNumbers = 10000;

}  // namespace

/// Own writes on their way, by key: the object, or nothing for a deletion.
class StoreRecords::Unacknowledged {
 public:
  uint64_t Add(const std::string& key, std::optional<std::string> object) {
    const std::lock_guard lock(mutex_);
    writes_[key] = {++last_, std::move(object)};
    return last_;
  }
  void Remove(const std::string& key, uint64_t number) {
    const std::lock_guard lock(mutex_);
    const auto found = writes_.find(key);
    if (found != writes_.end() && found->second.first == number) writes_.erase(found);
  }
  std::optional<std::optional<std::string>> Find(const std::string& key) const {
    const std::lock_guard lock(mutex_);
    const auto found = writes_.find(key);
    if (found == writes_.end()) return std::nullopt;
    return found->second.second;
  }
  std::map<std::string, std::optional<std::string>> All() const {
    const std::lock_guard lock(mutex_);
    std::map<std::string, std::optional<std::string>> all;
    for (const auto& [key, write] : writes_) all.emplace(key, write.second);
    return all;
  }

 private:
  mutable std::mutex mutex_;  // guards what follows
  uint64_t last_ = 0;
  std::map<std::string, std::pair<uint64_t, std::optional<std::string>>> writes_;
};

/// One read.  A callback that comes when it is over finds it so, whatever has been asked since.
struct StoreRecords::Request {
  std::mutex mutex;  // guards what follows
  zem::Condition changed;
  bool over = false;
  bool woken = false;
  Objects objects;
};

StoreRecords::StoreRecords(std::shared_ptr<CoveDBConnectionHandler> store, const RecordKind& kind,
                           Interruption* interruption)
    : store_(std::move(store)),
      kind_(kind),
      interruption_(interruption),
      own_(std::make_shared<Unacknowledged>()),
      number_(std::make_shared<std::atomic<uint32_t>>(0)) {}

StoreRecords::~StoreRecords() = default;

void StoreRecords::Put(const std::string& key, std::string object) { Write(key, std::move(object), true); }

void StoreRecords::Delete(const std::string& key, std::string object) {
  Write(key, std::move(object), false);
}

void StoreRecords::Write(const std::string& key, std::string object, bool put) {
  const uint64_t number = own_->Add(key, put ? std::optional(object) : std::nullopt);
  std::list<store::ModifyRequestMsg> requests(1);
  store::ModifyMsg& change = *requests.back().add_modify_msg();
  const auto type = static_cast<store::ObjectType>(kind_.type);
  if (put) {
    change.mutable_put_msg()->set_object_type(type);
    change.mutable_put_msg()->set_object(std::move(object));
  } else {
    change.mutable_delete_msg()->set_object_type(type);
    change.mutable_delete_msg()->set_object(std::move(object));
  }
  if (!store_->modify(std::move(requests), [own = own_, key, number] { own->Remove(key, number); })) {
    own_->Remove(key, number);
  }
}

void StoreRecords::NextNumber() { *number_ = (*number_ + 1) % kNumbers; }

std::optional<StoreRecords::Objects> StoreRecords::Read(const std::string& key, const std::string& object) {
  if (!object.empty()) {
    if (const auto own = own_->Find(key)) return *own ? Objects{**own} : Objects();
    return Ask(object);
  }
  auto objects = Ask(object);
  if (!objects) return std::nullopt;
  auto own = own_->All();
  std::erase_if(*objects, [&](const std::string& each) {
    const auto id = kind_.key_of(each);
    return !id || own.count(*id) != 0;
  });
  for (auto& [id, write] : own) {
    if (write) objects->push_back(std::move(*write));
  }
  return objects;
}

std::optional<StoreRecords::Objects> StoreRecords::Ask(const std::string& object) {
  const std::lock_guard one_at_a_time(store_->read_mutex());
  NextNumber();
  const uint32_t number = *number_;
  const auto request = std::make_shared<Request>();
  std::list<store::ObjectRequestMsg> asked(1);
  asked.back().set_object_type(static_cast<store::ObjectType>(kind_.type));
  if (!object.empty()) asked.back().set_object(object);
  const auto take = [request, number, current = number_, &kind = kind_](
                        const CoveDBConnectionHandler::Objects& objects, const zem::rpc::Status& status) {
    const std::lock_guard lock(request->mutex);
    if (request->over) {
      ZLOG_ERROR(kind.tag, kind.older, static_cast<int>(number), static_cast<int>(current->load()));
      return;
    }
    if (!status.ok()) ZLOG_ERROR(kind.tag, "%s", kind.bad_status);
    for (const store::TypedObjectMsg& each : objects) {
      ZLOG_DEBUG("Parse GET message type [%d:%s] with body of size(%d)", static_cast<int>(each.object_type()),
                 store::ObjectType_Name(each.object_type()).c_str(), static_cast<int>(each.object().size()));
      const auto id = kind.key_of(each.object());
      if (!id) {
        ZLOG_ERROR(kind.tag, "%s", kind.unreadable);
        continue;
      }
      if (kind.added != nullptr) ZLOG_DEBUG(kind.added, id->c_str());
      request->objects.push_back(each.object());
    }
    request->woken = true;
    request->changed.NotifyAll();
  };
  if (!store_->get(asked, take)) {
    NextNumber();
    ZLOG_WARN("%s", kind_.refused);
    return std::nullopt;
  }
  bool interrupted = false;
  std::optional<Interruption::Hook> hook;
  if (interruption_ != nullptr) {
    hook.emplace(*interruption_, [request, &interrupted] {
      const std::lock_guard lock(request->mutex);
      interrupted = true;
      request->changed.NotifyAll();
    });
  }
  std::unique_lock lock(request->mutex);
  const auto wake = [&] { return request->woken || interrupted; };
  for (int i = 0; i < kWaits && !wake(); ++i) request->changed.WaitFor(lock, kWait, wake);
  request->over = true;
  NextNumber();
  const bool woken = request->woken;
  Objects objects = std::move(request->objects);
  lock.unlock();
  hook.reset();
  if (!woken && interruption_ != nullptr) interruption_->Point();
  if (!woken) {
    ZLOG_WARN("%s", kind_.timed_out);
    return std::nullopt;
  }
  return objects;
}

}  // namespace ZemDa
