#include "app/alarmsprovider/config/config_sync_manager.h"

#include <chrono>
#include <utility>

#include "platform/provider/provider.h"
#include "platform/provider/timer.h"

namespace zem::Tarvik {
namespace {

constexpr auto kTick = std::chrono::seconds(30);
// The first tick may come directly after the clearing.
constexpr int kTicksAfterClear = 2;

}  // namespace

ConfigSyncManager::ConfigSyncManager(Paths paths)
    : provider_(std::make_unique<AsioZemProvider>()),
      central_config_(std::make_shared<CentralConfig>(*provider_, std::move(paths.central_config))),
      customizations_(std::move(paths.customizations)) {}

ConfigSyncManager::~ConfigSyncManager() { Stop(); }

void ConfigSyncManager::Start() {
  if (std::exchange(started_, true)) return;
  provider_->RunAsync(1);
  timer_ = provider_->timers().ScheduleRepeated(
      kTick,
      [self = weak_from_this()] {
        if (const auto alive = self.lock()) alive->Tick();
      },
      TimerOptions::Default);
}

void ConfigSyncManager::Stop() {
  if (!std::exchange(started_, false)) return;
  timer_->Cancel();
  central_config_->Stop();
  provider_->StopAndWait(true);
}

void ConfigSyncManager::Update(const orlane::zem::covedb::EventConfigMsg& event) {
  const std::lock_guard lock(mutex_);
  customizations_.Update(event);
}

void ConfigSyncManager::Delete(const std::string& name) {
  const std::lock_guard lock(mutex_);
  customizations_.Delete(name);
}

void ConfigSyncManager::Clear() {
  const std::lock_guard lock(mutex_);
  if (!customizations_.empty()) cleared_ = true;
  if (cleared_) ticks_to_write_ = kTicksAfterClear;
  customizations_.Clear();
}

void ConfigSyncManager::StoreGone() {
  const std::lock_guard lock(mutex_);
  ticks_to_write_ = 0;
}

bool ConfigSyncManager::Write() {
  const std::lock_guard lock(mutex_);
  ticks_to_write_ = 0;
  cleared_ = false;
  return customizations_.Write();
}

void ConfigSyncManager::SetCentralConfig(const std::string& text) { central_config_->Set(text); }

void ConfigSyncManager::Tick() {
  central_config_->CheckOverride();
  const std::lock_guard lock(mutex_);
  // A write that fails has been logged; the next change of a customization tries again.
  if (ticks_to_write_ == 0 || --ticks_to_write_ > 0) return;
  cleared_ = false;
  (void)customizations_.Write();
}

}  // namespace zem::Tarvik
