#include "app/ctxteng/flow/flow_queues.h"

#include <algorithm>

namespace Ctxt::PaceClient {
namespace {

constexpr uint32_t kMostEntries = 1000000;

template <class T>
void Drop(EventQueue<T>& queue) {
  for (T value; queue.TryPop(&value);) {
  }
}

}  // namespace

FlowQueues::FlowQueues(uint32_t connections_max, uint32_t vms_max, uint32_t users_max)
    : connections(std::min(connections_max, kMostEntries)),
      vms(std::min(vms_max, kMostEntries)),
      users(std::min(users_max, kMostEntries)) {}

void FlowQueues::Clear() {
  Drop(connections);
  Drop(vms);
  Drop(users);
}

}  // namespace Ctxt::PaceClient
