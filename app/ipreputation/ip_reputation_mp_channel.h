#pragma once

#include <string>

#include "mpaclient/vertical/vertical_client.h"

namespace zem::Tarvik {

/// The way of IP reputation to the manager, which has nothing to say in return.
///
/// Threads: `Connect` and `Stop` one after the other; `Send` from any thread, also after `Stop`, when it
/// fails.
class IpReputationMpChannel {
 public:
  explicit IpReputationMpChannel(AsioZemProvider& provider);
  virtual ~IpReputationMpChannel();
  IpReputationMpChannel(const IpReputationMpChannel&) = delete;
  IpReputationMpChannel& operator=(const IpReputationMpChannel&) = delete;

  void Connect();
  void Stop();
  /// Publishes a serialized report.  Returns 0, or -1 after an error line.
  [[nodiscard]] int Send(std::string payload);

 private:
  static void Receive(const VerticalRecord& record);

  VerticalClient vertical_;
};

}  // namespace zem::Tarvik
