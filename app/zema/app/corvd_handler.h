#pragma once

#include <string>

#include "app/zema/common/thread.h"
#include "platform/core/stop_signal.h"
#include "platform/core/unique_fd.h"

namespace zem::zema {

class HealthRecord;

/// The connection to the host management daemon: made anew whenever it is lost, and told to the health
/// record.
///
/// The daemon's port operations are answered with a failure: this host serves none yet.
///
/// Threads: its own; WaitForCorvdConnection and Stop from any.
class CorvdHandler final : public Thread {
 public:
  static constexpr const char* kSocket = "/var/run/orlane/opaquenetwork_corvd_service";

  explicit CorvdHandler(HealthRecord& health, std::string socket = kSocket);
  ~CorvdHandler() override;

  void Run() override;
  void Stop() override;

  /// The daemon opens its socket with the first switch: waits for the connection.  True when there is one.
  bool WaitForCorvdConnection(int seconds);

 private:
  void Connect();
  void Serve();
  bool ServeFrame();
  bool Read(void* buffer, size_t length);
  void Close();

  HealthRecord& health_;
  const std::string path_;
  StopSignal stop_;
  UniqueFd stop_event_;
  UniqueFd socket_;         // the thread's own
  bool connected_ = false;  // guarded by the monitor, as what follows
  int waiters_ = 0;
};

}  // namespace zem::zema
