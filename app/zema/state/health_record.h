#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "framework/tasks/outcome.h"
#include "platform/core/unique_fd.h"

namespace zem::zema {

/// Publishes the realization's health on the host's switches and to those who watch it.
class HealthPublisher {
 public:
  virtual ~HealthPublisher() = default;

  /// Sets a switch property by name.
  virtual Outcome SetProperty(const std::string& host_switch, const std::string& name, const void* data,
                              size_t size, uint32_t flags) = 0;
  virtual Outcome RemoveProperty(const std::string& host_switch, const std::string& name) = 0;
  /// Whether this host serves security alone, without an overlay.
  virtual bool SecurityOnly() = 0;
};

/// Whether the realization works, and the status published on the switches.
///
/// Any single part that is down takes the status down on all switches.  When a part comes up, all parts are
/// checked; when one goes down, this is published at once.  The mutex is held during publication, so that a
/// rise and a fall cannot overtake each other.
///
/// Threads: all operations from any thread.
class HealthRecord {
 public:
  using RouterMac = std::array<uint8_t, 6>;

  /// `publisher` has to outlive the record.
  HealthRecord(HealthPublisher& publisher, bool on_smart_nic);

  void mpaConnected();
  void mpaDisconnected();
  void opaqueSocketConnected();
  void opaqueSocketDisconnected();
  void setZemaLumReady();
  void setZemaLumNotReady();
  void setZemaStatusUp();
  void setZemaStatusDown();
  void enterTnMmode();
  void exitTnMmode();
  void setShuttingDown();
  /// Sets the switches on which the record publishes its status, by id, with their routers' addresses.
  /// Publishes nothing itself.
  void setDvsNameVdrMacs(std::map<std::string, RouterMac> macs);
  /// Sets the descriptor to which a byte is written each time the manager has been connected; the record owns
  /// the descriptor from now on.
  void setResyncFd(int fd);

  bool checkZemaHealth();
  /// Returns 0, or -1 when the status could not be set on a switch.
  int resetZemaHealth();

  bool healthy() const;
  bool shutting_down() const;
  bool mpa_connected() const;
  bool opaque_socket_connected() const;
  bool in_tn_mmode() const;
  bool lum_ready() const;
  bool status_down() const;
  std::map<std::string, RouterMac> dvs_vdr_macs() const;

 private:
  void Rise(bool HealthRecord::*part, bool value);
  void Fall(bool HealthRecord::*part, bool value);
  bool CheckLocked() const;
  int ResetLocked();
  Outcome PublishLocked(bool up);
  Outcome PublishOverlay(const std::string& host_switch, bool up);

  HealthPublisher& publisher_;
  mutable std::mutex mutex_;  // guards all below; held while the status is set on a switch
  bool lum_ready_ = false;
  bool healthy_ = false;
  bool opaque_socket_connected_ = false;
  bool mpa_connected_ = false;
  bool shutting_down_ = false;
  bool down_ = false;
  bool tn_mmode_ = false;
  const bool on_smart_nic_;
  UniqueFd resync_fd_;
  std::map<std::string, RouterMac> router_macs_;
};

}  // namespace zem::zema
