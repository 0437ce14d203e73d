#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "platform/core/unique_fd.h"

namespace zem::zema {

/// Puts the realization's health where the host's switches and those who watch them see it.
class HealthPublisher {
 public:
  virtual ~HealthPublisher() = default;

  /// Switch properties by name; false with the reason in `error`.
  virtual bool SetProperty(const std::string& host_switch, const std::string& name, const void* data,
                           size_t size, uint32_t flags, std::string* error) = 0;
  virtual bool RemoveProperty(const std::string& host_switch, const std::string& name,
                              std::string* error) = 0;
  /// Only security is served on this host, no overlay.
  virtual bool SecurityOnly() = 0;
};

/// Whether the realization is of use, and the switches' knowledge of it.
///
/// Any one thing down makes it down on all switches.  A rise of one part looks at all of them; a fall is
/// published at once.  The mutex is held over the publication, so a rise and a fall cannot cross.
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
  /// The switches whose status the record publishes, by id, with their routers' addresses.  Publishes nothing
  /// by itself.
  void setDvsNameVdrMacs(std::map<std::string, RouterMac> macs);
  /// Gets a byte each time the manager has been connected; the descriptor is the record's from now on.
  void setResyncFd(int fd);

  bool checkZemaHealth();
  /// 0, or -1 when a switch did not take it.
  int resetZemaHealth();

  bool healthy() const;
  bool shutting_down() const;
  bool mpa_connected() const;
  bool in_tn_mmode() const;
  bool lum_ready() const;
  bool status_down() const;
  std::map<std::string, RouterMac> dvs_vdr_macs() const;

 private:
  void Rise(bool HealthRecord::*part, bool value);
  void Fall(bool HealthRecord::*part, bool value);
  bool CheckLocked() const;
  int ResetLocked();
  bool PublishLocked(bool up, std::string* error);
  bool PublishOverlay(const std::string& host_switch, bool up, std::string* error);

  HealthPublisher& publisher_;
  mutable std::mutex mutex_;  // guards all below; held while a switch is told
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
