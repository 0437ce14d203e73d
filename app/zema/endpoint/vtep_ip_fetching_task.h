#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/zema/endpoint/endpoint_context.h"
#include "framework/tasks/runnable.h"

namespace zem::zema {

/// Asks the host for the addresses that endpoints obtain by DHCP or from the link, and reports those found to
/// the manager.  For the other endpoints, a successor is queued at the end, so that it does not hold up other
/// work.
///
/// Threads: the worker for work after host configurations.
class AddressFetchingTask : public Runnable {
 public:
  /// The recipient of the event.
  struct Event {
    std::string reply_to;
    std::string id;
    std::string transport_node_id;
    std::string revision;
  };
  /// `retries` more tries follow; in `sync_mode` an endpoint without address is reported as well.  The tries
  /// end when their `configuration` is replaced; without one, for a request of the manager, they do not.
  struct Tries {
    int retries = 0;
    bool sync_mode = false;
    std::optional<uint64_t> configuration = std::nullopt;
  };

  void Run() override;
  bool IsBatchable() const override { return false; }

 protected:
  /// The kind of address by device; empty for IPv4.
  using Devices = std::vector<std::pair<std::string, std::string>>;
  struct Family;

  AddressFetchingTask(const Family& family, std::shared_ptr<EndpointContext> context, Event event,
                      Devices devices, Tries tries);

  static const Family kIpv4;
  static const Family kIpv6;

 private:
  enum class Answer { kFound, kNotYet, kFailed, kUnreadable };

  bool Superseded() const;
  Answer Ask(const std::string& device, const std::string& kind, std::string* address);
  void Tell(const std::map<std::string, std::string>& found);
  void Retry(Devices devices);

  const Family& family_;
  const std::shared_ptr<EndpointContext> context_;
  const Event event_;
  const Devices devices_;
  const Tries tries_;
};

/// IPv4 addresses by DHCP.
class VtepIpFetchingTask final : public AddressFetchingTask {
 public:
  VtepIpFetchingTask(std::shared_ptr<EndpointContext> context, Event event,
                     const std::vector<std::string>& devices, Tries tries);
};

/// IPv6 addresses, "dhcp" or "linklayer" by device.
class VtepIpv6FetchingTask final : public AddressFetchingTask {
 public:
  VtepIpv6FetchingTask(std::shared_ptr<EndpointContext> context, Event event,
                       const std::map<std::string, std::string>& kinds, Tries tries);
};

}  // namespace zem::zema
