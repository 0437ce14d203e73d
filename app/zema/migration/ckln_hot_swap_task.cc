#include "app/zema/migration/ckln_hot_swap_task.h"

#include <algorithm>
#include <string>
#include <utility>

#include "app/zema/proxy/lum_commands.h"
#include "framework/log/log.h"
#include "platform/core/thread_name.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

// The interval doubles each time after this many failures, up to ten minutes.
constexpr int kFailuresPerStep = 8;
constexpr int kLongestInterval = 600;  // seconds

}  // namespace

CklnHotSwapTask::CklnHotSwapTask(LumCommands& lum, Schedule schedule, int retry_interval, int attempts)
    : lum_(lum), schedule_(std::move(schedule)), retry_interval_(retry_interval), attempts_(attempts) {}

void CklnHotSwapTask::Run() {
  SetThreadName("zema:CklnHotSwapTask");
  ZLOG_INFO("CklnHotSwapTask started");
  std::string reply;
  if (lum_.InvokeCommand("HotSwapUnusedCkln()", "ok", &reply) != LumCommands::kSucceeded) {
    ZLOG_INFO("HotSwapUnusedCkln failed: %s\n", reply.c_str());
    if (retry_interval_ > 0) {
      const int attempts = attempts_ + 1;
      int interval = retry_interval_;
      if (attempts % kFailuresPerStep == 0 && interval < kLongestInterval) {
        interval = std::min(2 * interval, kLongestInterval);
      }
      schedule_(std::make_unique<CklnHotSwapTask>(lum_, schedule_, interval, attempts), interval);
    }
  }
  ZLOG_INFO("CklnHotSwapTask ended");
}

}  // namespace zem::zema
