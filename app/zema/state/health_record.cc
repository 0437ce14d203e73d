#include "app/zema/state/health_record.h"

#include <unistd.h>

#include <cstring>
#include <utility>

#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

constexpr const char* kStatusProperty = "com.orlane.common.opaqueDvs.status.component.zema";
constexpr uint32_t kStatusFlags = 16;
constexpr const char* kOverlayProperty = "com.orlane.common.host.volatile.overlay.status";
constexpr uint32_t kOverlayFlags = 32;

struct OverlayStatus {
  uint32_t status;
  char text[256];
};
static_assert(sizeof(OverlayStatus) == 260);
constexpr uint32_t kOverlayUp = 0;
constexpr uint32_t kOverlayDown = 2;

constexpr char kResyncByte = 'r';

}  // namespace

HealthRecord::HealthRecord(HealthPublisher& publisher, bool on_smart_nic)
    : publisher_(publisher), on_smart_nic_(on_smart_nic) {}

void HealthRecord::mpaConnected() {
  std::lock_guard lock(mutex_);
  mpa_connected_ = true;
  ResetLocked();
  if (!resync_fd_) {
    ZLOG_INFO("[%s] Resync Task not ready yet", __func__);
  } else if (::write(resync_fd_.get(), &kResyncByte, 1) == 1) {
    ZLOG_INFO("[%s] Resync Task signaled", __func__);
  } else {
    ZLOG_WARN("[%s] Resync Task was not signaled: %s", __func__, std::strerror(errno));
  }
}

void HealthRecord::mpaDisconnected() { Fall(&HealthRecord::mpa_connected_, false); }
void HealthRecord::opaqueSocketConnected() { Rise(&HealthRecord::opaque_socket_connected_, true); }
void HealthRecord::opaqueSocketDisconnected() { Fall(&HealthRecord::opaque_socket_connected_, false); }
void HealthRecord::setZemaLumReady() { Rise(&HealthRecord::lum_ready_, true); }
void HealthRecord::setZemaLumNotReady() { Fall(&HealthRecord::lum_ready_, false); }
void HealthRecord::setZemaStatusUp() { Rise(&HealthRecord::down_, false); }
void HealthRecord::setZemaStatusDown() { Fall(&HealthRecord::down_, true); }
void HealthRecord::enterTnMmode() { Fall(&HealthRecord::tn_mmode_, true); }
void HealthRecord::exitTnMmode() { Rise(&HealthRecord::tn_mmode_, false); }
void HealthRecord::setShuttingDown() { Fall(&HealthRecord::shutting_down_, true); }

void HealthRecord::Rise(bool HealthRecord::*part, bool value) {
  std::lock_guard lock(mutex_);
  this->*part = value;
  ResetLocked();
}

void HealthRecord::Fall(bool HealthRecord::*part, bool value) {
  std::lock_guard lock(mutex_);
  this->*part = value;
  if (!healthy_) return;
  if (const Outcome published = PublishLocked(false); !published) {
    ZLOG_ERROR("42100", "[%s] Failed to update health status [%s]", __func__, published.error().c_str());
  }
}

void HealthRecord::setDvsNameVdrMacs(std::map<std::string, RouterMac> macs) {
  std::lock_guard lock(mutex_);
  router_macs_ = std::move(macs);
}

void HealthRecord::setResyncFd(int fd) {
  std::lock_guard lock(mutex_);
  resync_fd_.Reset(fd);
}

bool HealthRecord::checkZemaHealth() {
  std::lock_guard lock(mutex_);
  return CheckLocked();
}

bool HealthRecord::CheckLocked() const {
  const bool socket = opaque_socket_connected_ || on_smart_nic_;
  ZLOG_INFO(
      "[%s] _isMpaConnected %d, _isZemaLumReady %d, !_isZemaShuttingDown %d, (_isOpaqueSocketConnected || "
      "_isOnSmartNIC) %d, !_isZemaDown %d, !isTnMmode = %d (Note: Any one down sets zema down on all "
      "HostSwitches)",
      __func__, mpa_connected_, lum_ready_, !shutting_down_, socket, !down_, !tn_mmode_);
  return mpa_connected_ && lum_ready_ && !shutting_down_ && socket && !down_ && !tn_mmode_;
}

int HealthRecord::resetZemaHealth() {
  std::lock_guard lock(mutex_);
  return ResetLocked();
}

int HealthRecord::ResetLocked() {
  const Outcome published = PublishLocked(CheckLocked());
  if (published) return 0;
  ZLOG_ERROR("42100", "[%s] Failed to update health status [%s]", "resetZemaHealth",
             published.error().c_str());
  return -1;
}

Outcome HealthRecord::PublishLocked(bool up) {
  std::string failures;
  const std::string word = up ? "up" : "down";
  for (const auto& [host_switch, mac] : router_macs_) {
    ZLOG_INFO("[%s] Setting zema health status for dvs [%s] : %s, noReplicateFlag: 0x%x", "updateZemaHealth",
              host_switch.c_str(), word.c_str(), kStatusFlags);
    if (const Outcome set =
            publisher_.SetProperty(host_switch, kStatusProperty, word.c_str(), word.size() + 1, kStatusFlags);
        !set) {
      failures += "UpdateZemaHealth for DVS[" + host_switch + "] failed: " + set.error();
    }
    if (const Outcome overlay = PublishOverlay(host_switch, up); !overlay) {
      failures += "UpdateDvsHealth for DVS[" + host_switch + "] failed: " + overlay.error();
    }
  }
  if (!failures.empty()) return Outcome::Failed(std::move(failures));
  healthy_ = up;
  return Outcome::Done();
}

Outcome HealthRecord::PublishOverlay(const std::string& host_switch, bool up) {
  if (!publisher_.SecurityOnly()) return publisher_.RemoveProperty(host_switch, kOverlayProperty);
  OverlayStatus status{};
  status.status = up ? kOverlayUp : kOverlayDown;
  std::strncpy(status.text, up ? "zema up" : "zema down", sizeof(status.text) - 1);
  return publisher_.SetProperty(host_switch, kOverlayProperty, &status, sizeof(status), kOverlayFlags);
}

bool HealthRecord::healthy() const {
  std::lock_guard lock(mutex_);
  return healthy_;
}

bool HealthRecord::shutting_down() const {
  std::lock_guard lock(mutex_);
  return shutting_down_;
}

bool HealthRecord::opaque_socket_connected() const {
  std::lock_guard lock(mutex_);
  return opaque_socket_connected_;
}

bool HealthRecord::mpa_connected() const {
  std::lock_guard lock(mutex_);
  return mpa_connected_;
}

bool HealthRecord::in_tn_mmode() const {
  std::lock_guard lock(mutex_);
  return tn_mmode_;
}

bool HealthRecord::lum_ready() const {
  std::lock_guard lock(mutex_);
  return lum_ready_;
}

bool HealthRecord::status_down() const {
  std::lock_guard lock(mutex_);
  return down_;
}

std::map<std::string, HealthRecord::RouterMac> HealthRecord::dvs_vdr_macs() const {
  std::lock_guard lock(mutex_);
  return router_macs_;
}

}  // namespace zem::zema
