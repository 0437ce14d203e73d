#include "covedbclient/modify_queue.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "covedbclient/covedb_client_interface.h"
#include "platform/metrics/metrics.h"

namespace zem::covedb {
namespace {

using VDbIds = google::protobuf::RepeatedField<uint32_t>;

// Null for a change without content.
VDbIds* MutableVDbIds(ModifyMsg& change) {
  if (change.has_put_msg()) return change.mutable_put_msg()->mutable_vdb_id();
  if (change.has_delete_msg()) return change.mutable_delete_msg()->mutable_vdb_id();
  if (change.has_flush_msg()) return change.mutable_flush_msg()->mutable_vdb_id();
  if (change.has_patch_msg()) return change.mutable_patch_msg()->mutable_vdb_id();
  if (change.has_copy_msg()) return change.mutable_copy_msg()->mutable_vdb_id();
  return nullptr;
}

uint32_t SourceVDb(const orlane::zem::covedb::CopyMsg& copy) {
  return copy.has_source_vdb_id() ? copy.source_vdb_id() : kDefaultVDb;
}

// True when nothing of the change is left without `vdb_id`; otherwise the change no longer names it.
bool LosesAllTargets(ModifyMsg& change, uint32_t vdb_id) {
  if (change.has_copy_msg() && SourceVDb(change.copy_msg()) == vdb_id) return true;
  VDbIds* const ids = MutableVDbIds(change);
  if (ids == nullptr || ids->empty()) return vdb_id == kDefaultVDb;
  const auto others = std::remove(ids->begin(), ids->end(), vdb_id);
  if (others == ids->begin()) return true;
  ids->erase(others, ids->end());
  return false;
}

}  // namespace

ObjectType ObjectTypeOf(const ModifyMsg& change) {
  if (change.has_put_msg()) return change.put_msg().object_type();
  if (change.has_delete_msg()) return change.delete_msg().object_type();
  if (change.has_flush_msg()) return change.flush_msg().object_type();
  if (change.has_patch_msg()) return change.patch_msg().object_type();
  if (change.has_copy_msg()) return change.copy_msg().object_type();
  return ObjectType::OBJECT_TYPE_NONE;
}

void RemoveChanges(ModifyQueue::Requests& requests, const std::function<bool(ModifyMsg&)>& drop) {
  for (auto request = requests.begin(); request != requests.end();) {
    auto* const changes = request->mutable_modify_msg();
    int kept = 0;
    for (int i = 0; i < changes->size(); ++i) {
      if (drop(*changes->Mutable(i))) continue;
      if (kept != i) changes->SwapElements(kept, i);
      ++kept;
    }
    changes->DeleteSubrange(kept, changes->size() - kept);
    request = changes->empty() ? requests.erase(request) : std::next(request);
  }
}

ModifyQueue::ModifyQueue(metrics::Gauge& count) : count_(count) { Show(); }

void ModifyQueue::Append(Requests requests, std::function<void()> done) {
  Entry& entry = pending_modification_requests_.emplace_back();
  entry.requests = std::make_shared<Requests>(std::move(requests));
  entry.callbacks.push_back(std::move(done));
  gauge_.Entered();
  Show();
}

ModifyQueue::Entry* ModifyQueue::TakeBatch() {
  if (pending_modification_requests_.empty() || pending_modification_requests_.front().sent) return nullptr;
  Entry& first = pending_modification_requests_.front();
  first.sent = true;
  const auto second = std::next(pending_modification_requests_.begin());
  for (auto entry = second; entry != pending_modification_requests_.end(); ++entry) {
    first.requests->splice(first.requests->end(), *entry->requests);
    first.callbacks.splice(first.callbacks.end(), entry->callbacks);
    first.appended += entry->appended;
  }
  pending_modification_requests_.erase(second, pending_modification_requests_.end());
  Show();
  return &first;
}

ModifyQueue::Entry* ModifyQueue::Front() {
  return pending_modification_requests_.empty() ? nullptr : &pending_modification_requests_.front();
}

// Only now do they wait no more: a store that takes a batch and does not answer is seen by it.
void ModifyQueue::PopFront() {
  for (size_t left = pending_modification_requests_.front().appended; left > 0; --left) gauge_.Left();
  pending_modification_requests_.pop_front();
  Show();
}

void ModifyQueue::Purge(uint16_t vdb_id) {
  for (auto entry = pending_modification_requests_.begin(); entry != pending_modification_requests_.end();) {
    if (entry->sent) {
      ++entry;
      continue;
    }
    RemoveChanges(*entry->requests, [vdb_id](ModifyMsg& change) { return LosesAllTargets(change, vdb_id); });
    if (!entry->requests->empty()) {
      ++entry;
      continue;
    }
    gauge_.Dropped(entry->appended);
    entry = pending_modification_requests_.erase(entry);
  }
  Show();
}

void ModifyQueue::Show() { count_.Set(static_cast<int64_t>(pending_modification_requests_.size())); }

}  // namespace zem::covedb
