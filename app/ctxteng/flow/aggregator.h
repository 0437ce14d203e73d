#pragma once

#include <cstdint>

#include "app/ctxteng/flow/flow_queues.h"
#include "app/ctxteng/flow/vm_info.h"

namespace Ctxt::PaceClient {

struct FlowStatistics;

/// Sorts events by guest, and what is the same in several of them once.
///
/// Threads: one.
/// Limits: 500,000 events between two calls of `Clear`; those beyond are counted as dropped.
class Aggregator {
 public:
  static constexpr uint32_t kMostEvents = 500000;

  /// `statistics` outlives the aggregator.
  explicit Aggregator(FlowStatistics& statistics) : statistics_(statistics) {}

  /// Takes from each queue what it holds when its turn comes, and not what comes meanwhile.
  void Drain(FlowQueues& queues);
  const VmMap& guests() const { return guests_; }
  void Clear();

 private:
  uint32_t DrainVms(FlowQueues& queues);
  uint32_t DrainConnections(FlowQueues& queues);
  uint32_t DrainUsers(FlowQueues& queues);
  void Take(std::shared_ptr<const VmEvent> event);
  void Take(std::shared_ptr<const ConnInfo> connection);
  void Take(std::shared_ptr<const UserSessionInfo> session);
  VmInfo& GuestOf(const std::string& vc_uuid);
  void EnterUser(VmInfo& guest, const std::string& key, UserInfo user);
  bool HasRoom();

  FlowStatistics& statistics_;
  VmMap guests_;
  VmMap::value_type* last_guest_ = nullptr;  // the one that an event was of last
  uint32_t events_ = 0;
};

}  // namespace Ctxt::PaceClient
