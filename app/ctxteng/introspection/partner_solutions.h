#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "app/ctxteng/base/locks.h"

namespace orlane::zem::ouvi {
class GiSolutionInfoMsg;
}

namespace Ctxt {

class PartnerAlarm;

/// Which solutions there are, with the service instance of each, and which of their service VMs have lost the
/// multiplexer; raises and resets the alarm of a partner's channel.  The system's own solutions are not kept.
///
/// Threads: all operations from any thread; the alarm is called with no lock held.
class PartnerSolutions {
 public:
  explicit PartnerSolutions(std::shared_ptr<PartnerAlarm> alarm) : alarm_(std::move(alarm)) {}

  /// Takes a new solution configuration.  A solution that has gone, or has another service instance now,
  /// loses all its alarms, unless this is the first configuration.
  void Take(const orlane::zem::ouvi::GiSolutionInfoMsg& info, bool first);

  /// The multiplexer is gone: each solution's channel is down.
  void MuxDisconnected();
  /// The multiplexer is back: so is the channel of each solution whose service VM has not left it.
  void MuxReconnected();
  void SvmDisconnected(const std::string& solution_id);
  void SvmConnected(const std::string& solution_id);

  void SetServiceInstanceId(const std::string& solution_id, const std::string& id);
  /// Empty when it is not known.
  std::string GetServiceInstanceId(const std::string& solution_id);

 private:
  // By solution id, the service instance.
  using Instances = std::unordered_map<std::string, std::string>;
  using List = std::vector<std::pair<std::string, std::string>>;

  // What a service VM's way to or from the multiplexer does to its alarm, and the lines about it.
  struct SvmTexts;
  static const SvmTexts kSvmDown;
  static const SvmTexts kSvmUp;

  List LeftOrChanged(const Instances& now);
  // The service instance whose alarm was posted, or should have been; empty when there is none to post.
  std::string PostSvm(const SvmTexts& texts, const std::string& solution_id);
  bool ResetIfReplaced(const std::string& solution_id, const std::string& instance);

  const std::shared_ptr<PartnerAlarm> alarm_;
  Locks::Mutex solutions_mutex_;  // guards the next two
  Instances solution_map_;
  Instances svm_down_map_;
  Locks::Mutex instances_mutex_;  // guards the next
  Instances service_instance_map_;
};

}  // namespace Ctxt
