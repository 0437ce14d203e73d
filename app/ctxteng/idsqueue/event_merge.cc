#include "app/ctxteng/idsqueue/event_merge.h"

#include <functional>
#include <string_view>

#include "app/ctxteng/idsrecord/ids_event.h"

namespace IdsEvtEng {

EventMerge::EventMerge(size_t most) : seen_(most) { events_.reserve(most); }
EventMerge::~EventMerge() = default;

void EventMerge::Add(std::unique_ptr<IdsEvent> event) {
  ++added_;
  const auto [found, is_new] = seen_.insert(event.get());
  if (is_new) {
    event->count = 1;
    events_.push_back(std::move(event));
    return;
  }
  IdsEvent& first = **found;
  first.bytes_to_server += event->bytes_to_server;
  first.bytes_to_client += event->bytes_to_client;
  ++first.count;
}

// An alert is one of its guest, a capture one of its flow.
size_t EventMerge::Hash::operator()(const IdsEvent* event) const {
  size_t hash = 0;
  const auto mix = [&hash](size_t part) {
    hash = (hash ^ part) * 0x9E3779B97F4A7C15;
    hash ^= hash >> 32;
  };
  const std::hash<std::string_view> of_text;
  mix(of_text(event->src_ip));
  mix(of_text(event->dest_ip));
  mix(MergePortOf(*event));
  mix(of_text(event->proto));
  mix(event->signature_id);
  if (event->event_type == kFlowSnipEvent) {
    mix(event->flow_id);
    mix(event->snip_ts_us);
  } else {
    mix(of_text(event->vm_uuid));
  }
  return hash;
}

bool EventMerge::Alike::operator()(const IdsEvent* left, const IdsEvent* right) const {
  if (left->event_type != right->event_type || left->signature_id != right->signature_id ||
      MergePortOf(*left) != MergePortOf(*right) || left->src_ip != right->src_ip ||
      left->dest_ip != right->dest_ip || left->proto != right->proto)
    return false;
  if (left->event_type == kFlowSnipEvent)
    return left->flow_id == right->flow_id && left->snip_ts_us == right->snip_ts_us;
  return left->vm_uuid == right->vm_uuid;
}

}  // namespace IdsEvtEng
