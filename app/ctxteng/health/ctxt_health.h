#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "app/ctxteng/base/ctxt_msg.h"
#include "app/ctxteng/health/health_report.h"
#include "platform/core/stop_signal.h"
#include "platform/core/thread.h"

namespace Ctxt {

/// Reports the multiplexer's health, and what came of configurations, to the manager; logs each guest's
/// statistics once a minute.  A report that cannot be sent is dropped, because the next one supersedes it.
///
/// Threads: Initialize and Shutdown one after the other; the others from any thread.
class CtxtHealth {
 public:
  using Guests = std::map<std::string, std::shared_ptr<const VmData>>;
  using Callback = std::function<void(const std::shared_ptr<CtxtMsg>& message)>;

  struct Settings {
    /// False where no manager wants to know of the engine's health.
    bool applies = true;
    /// Registers the application with the channel to the manager.
    std::function<void(const std::string& app_id, const std::string& app_type, Callback callback)>
        register_client;
    /// Sends a message; negative when that failed, which the channel has logged.
    std::function<int(const std::shared_ptr<CtxtMsg>& message, bool is_request)> send;
    /// The running guests by vc uuid.
    std::function<Guests()> guests;
    /// Reads the multiplexer's health text; returns the guest event library's status.
    std::function<uint32_t(std::string* text)> read_health;
  };

  static CtxtHealth& GetInstance();

  /// Throws std::logic_error while there is another object.
  CtxtHealth();
  ~CtxtHealth();
  CtxtHealth(const CtxtHealth&) = delete;
  CtxtHealth& operator=(const CtxtHealth&) = delete;

  /// Throws CtxtBoostThreadResourceError when the thread of the statistics cannot be made.
  void Initialize(Settings settings);
  void Shutdown();

  /// Reads the multiplexer's health and sends it.
  void SendHealthStatus();
  /// Sends a status without objects.
  void SendStatus(uint32_t code, const std::string& text);
  void SendMuxDisconnected();

 private:
  [[nodiscard]] bool Send(std::shared_ptr<orlane::zem::context::HealthStatusMsg> status);
  void LogStatistics();

  Settings settings_;
  zem::StopSignal stop_;
  zem::NativeThread statistics_;
};

}  // namespace Ctxt
