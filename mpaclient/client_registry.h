#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "mpaclient/mpa_client.h"

namespace zem {

/// The manager clients of the process, by the name of their vertical.
///
/// Threads: all operations from any thread.
class ClientRegistry {
 public:
  /// Makes the client of vertical `name`.  Times in microseconds.  `bus` stands in for the bus library; null
  /// is the library itself.  Returns false, after an error line, when the name is registered already; its
  /// client stays.
  static bool Register(AsioZemProvider& provider, MpaReceiveCallback callback, const std::string& name,
                       const std::string& id, uint32_t client_type, uint16_t port, uint64_t ack_timeout_us,
                       uint64_t retry_timeout_us, boost::intrusive_ptr<RmqClientInterface> bus = nullptr);
  /// Makes a client that is not found by its name, for a process in which several agents live; Retire ends
  /// it as Unregister does the others.  Without a bus it is given the library's.
  static std::shared_ptr<MpaClient> Make(MpaClientArguments arguments);
  static void Retire(MpaClient& client);
  /// Null when the vertical is not registered.
  static std::shared_ptr<MpaClient> Get(const std::string& name);
  static void Unregister(const std::string& name);
  /// Name and client of every registered vertical, in order of name.
  static std::vector<std::pair<std::string, std::shared_ptr<MpaClient>>> All();

  /// Delivers a record to the vertical that its `app_type` names and frees its `free_block`.
  static void Deliver(rmqClientMessage* message);
};

}  // namespace zem
