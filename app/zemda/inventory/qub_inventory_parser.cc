#include "app/zemda/inventory/qub_inventory_parser.h"

#include <utility>

#include "app/zemda/inventory/property_tables.h"
#include "app/zemda/inventory/reply_reader.h"
#include "framework/log/log.h"

namespace ZemDa {
namespace {

constexpr zem::LogSource kLog{"tarvik", "zemda"};

constexpr size_t kMostWaitingOfVm = 64;
constexpr size_t kMostWaiting = 20000;
constexpr size_t kMostVms = 100000;

template <class Visit>
void ForEachIdentifier(const Visit& visit) {
  for (const PropertyKey& each : kQubIdentifiers) visit(each.name);
  for (const PropertyKey& each : kVmIdentifiers) visit(each.name);
}

}  // namespace

std::vector<InventoryUpdate> QubInventoryParser::Parse(const std::vector<ReplyLine>& reply) {
  std::vector<InventoryUpdate> objects;
  ReplyReader reader(reply);
  while (auto update = reader.Next()) {
    if (std::holds_alternative<QubVM>(update->object)) {
      TakeVm(std::move(*update), &objects);
    } else {
      objects.push_back(std::move(*update));
    }
  }
  return objects;
}

void QubInventoryParser::TakeVm(InventoryUpdate update, std::vector<InventoryUpdate>* objects) {
  auto& vm = std::get<QubVM>(update.object);
  const std::string mo_id = ValueOf(vm.properties, "MoId");
  if (mo_id.empty()) {
    ZLOG_WARN("A VM without MoId is dropped");
    return;
  }
  Complete(mo_id, &vm.properties);
  if (ValueOf(vm.properties, "vmExternalId").empty()) return Wait(mo_id, std::move(vm));
  if (const auto waiting = waiting_.find(mo_id); waiting != waiting_.end()) {
    for (QubVM& earlier : waiting->second) {
      ForEachIdentifier([&](const char* name) {
        const auto found = vm.properties.find(name);
        if (found != vm.properties.end()) earlier.properties[name] = found->second;
      });
      objects->push_back({"enter", std::move(earlier)});
    }
    waiting_count_ -= waiting->second.size();
    waiting_.erase(waiting);
  }
  if (update.type == "leave") identifiers_.erase(mo_id);
  objects->push_back(std::move(update));
}

// The daemon tells an identifier once; what it does not tell again is what it was.
void QubInventoryParser::Complete(const std::string& mo_id, Properties* properties) {
  if (identifiers_.size() >= kMostVms && identifiers_.count(mo_id) == 0) {
    ZLOG_WARN("There are %zu VMs: the identifiers of %s are not kept", kMostVms, mo_id.c_str());
    return;
  }
  Properties& known = identifiers_[mo_id];
  ForEachIdentifier([&](const char* name) {
    const auto told = properties->find(name);
    if (told != properties->end()) {
      known[name] = told->second;
    } else if (const auto found = known.find(name); found != known.end()) {
      (*properties)[name] = found->second;
    }
  });
}

void QubInventoryParser::Wait(const std::string& mo_id, QubVM vm) {
  std::deque<QubVM>& waiting = waiting_[mo_id];
  if (waiting.size() >= kMostWaitingOfVm) {
    ZLOG_WARN("The VM %s still has no external id: the oldest of %zu changes is dropped", mo_id.c_str(),
              waiting.size());
    waiting.pop_front();
    --waiting_count_;
  }
  if (waiting_count_ >= kMostWaiting) {
    ZLOG_WARN("%zu changes wait for external ids: one of the VM %s is dropped", waiting_count_,
              mo_id.c_str());
    if (waiting.empty()) waiting_.erase(mo_id);
    return;
  }
  waiting.push_back(std::move(vm));
  ++waiting_count_;
}

}  // namespace ZemDa
