#include "app/zema/app/follow_ups.h"

#include "app/controller/controller_list_app.h"
#include "app/zema/app/host_config_callbacks.h"
#include "app/zema/endpoint/vtep_ip_fetching_task.h"
#include "app/zema/host/host_management_slot.h"
#include "app/zema/hostconfig/high_performance_profile_task.h"
#include "app/zema/hostswitch/high_performance_profile.h"
#include "app/zema/manager/zem_manager.h"
#include "app/zema/migration/ckln_hot_swap_task.h"
#include "app/zema/ports/port_ops_manager.h"
#include "app/zema/state/health_record.h"
#include "app/zema/state/realization_options.h"
#include "app/zema/workers/worker_table.h"
#include "app/zema/workers/worker_tasks.h"
#include "framework/log/log.h"
#include "framework/tasks/function_task.h"
#include "platform/provider/timer.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

}  // namespace

FollowUps::FollowUps(Settings settings) : settings_(std::move(settings)) {}

FollowUps::~FollowUps() = default;

void FollowUps::BeginConfiguration() { ++settings_.endpoints->configuration; }

void FollowUps::FetchAddresses(const Origin& origin, const std::vector<std::string>& devices, int retries) {
  settings_.endpoints->workers.AddTask(
      Worker::kPostHostSync,
      std::make_unique<VtepIpFetchingTask>(
          settings_.endpoints,
          AddressFetchingTask::Event{origin.reply_to, origin.id, origin.transport_node_id, origin.revision},
          devices, AddressFetchingTask::Tries{retries, false, settings_.endpoints->configuration.load()}));
}

void FollowUps::FetchIpv6Addresses(const Origin& origin, const std::map<std::string, std::string>& kinds,
                                   int retries) {
  settings_.endpoints->workers.AddTask(
      Worker::kPostHostSync,
      std::make_unique<VtepIpv6FetchingTask>(
          settings_.endpoints,
          AddressFetchingTask::Event{origin.reply_to, origin.id, origin.transport_node_id, origin.revision},
          kinds, AddressFetchingTask::Tries{retries, false, settings_.endpoints->configuration.load()}));
}

void FollowUps::HotSwapUnusedCkln(int initial_delay, int retry_interval) {
  const CklnHotSwapTask::Schedule schedule = [&workers = settings_.workers](std::unique_ptr<Runnable> task,
                                                                            int delay) {
    AddCklnHotSwapTask(workers, std::move(task), delay);
  };
  schedule(std::make_unique<CklnHotSwapTask>(settings_.lum, schedule, retry_interval), initial_delay);
}

void FollowUps::ApplyHighPerformanceProfile() {
  if (high_performance_running_.exchange(true)) {
    ZLOG_INFO("A task already exists. Hence skipping.");
    return;
  }
  HighPerformanceProfileTask::Settings task{settings_.lum, settings_.files, settings_.high_performance,
                                            settings_.sender};
  task.host_prop = [&ports = settings_.ports](const std::string& dvs, const std::string& property,
                                              std::string* value) {
    return ports.properties().GetHostConfigProp(dvs, property, value);
  };
  task.retry_interval = [&options = settings_.options] {
    return options.Snapshot().high_performance_retry_interval;
  };
  task.pause = settings_.pause;
  task.done = [this] { high_performance_running_ = false; };
  if (!AddHighPerformanceProfileTask(settings_.workers,
                                     std::make_unique<HighPerformanceProfileTask>(std::move(task)))) {
    high_performance_running_ = false;
  }
}

void FollowUps::UpdateTnUuidInFile(const std::string& id) {
  if (settings_.controllers != nullptr) settings_.controllers->UpdateTnUuidInFile(id);
}

void FollowUps::Applied(const orlane::zem::switching::HostConfigMsg& config) {
  settings_.callbacks.Call(config);
}

void FollowUps::LeaveMaintenance() {
  settings_.manager.SetMaintenanceMode(false);
  settings_.health.exitTnMmode();
}

void FollowUps::RunLater(Duration delay, std::function<void()> work) {
  const std::lock_guard lock(later_mutex_);
  if (later_) later_->Cancel();
  if (stopped_) return;
  later_ = settings_.timers.Schedule(delay, [&workers = settings_.workers, work = std::move(work)] {
    workers.AddTask(Worker::kHostSync, std::make_unique<FunctionTask>(work));
  });
}

void FollowUps::RunBehind(std::function<void()> work) {
  settings_.workers.AddTask(Worker::kHostSync, std::make_unique<FunctionTask>(std::move(work)));
}

void FollowUps::Stop() {
  const std::lock_guard lock(later_mutex_);
  stopped_ = true;
  if (later_) later_->Cancel();
  later_.reset();
}

void FollowUps::WaitForHostManagement(int seconds) { settings_.host_management.WaitForConnection(seconds); }

void FollowUps::AllowResync(bool allowed) { settings_.host_management.AllowResync(allowed); }

}  // namespace zem::zema
