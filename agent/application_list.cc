#include "agent/application_list.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

#include "framework/log/log.h"
#include "framework/status/status_board.h"
#include "platform/core/thread_name.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

}  // namespace

ApplicationList::ApplicationList(std::span<const ApplicationRow> table, bool host_role,
                                 std::function<void(const char*)> enter_step)
    : host_role_(host_role), enter_step_(std::move(enter_step)) {
  for (const ApplicationRow& row : table) entries_.push_back({&row, nullptr});
}

ApplicationList::~ApplicationList() { Destroy(); }

std::vector<ApplicationList::Entry*> ApplicationList::By(int ApplicationRow::*rank) {
  std::vector<Entry*> sorted;
  for (Entry& entry : entries_) sorted.push_back(&entry);
  std::ranges::stable_sort(sorted, {}, [rank](const Entry* entry) { return entry->row->*rank; });
  return sorted;
}

bool ApplicationList::Wanted(const ApplicationRow& row) const {
  if (row.host_role && !host_role_) return false;
  if (!row.option) return true;
  uint8_t on = 0;
  GetMode(*row.option, &on);
  return on != 0;
}

void ApplicationList::Enter(const char* step) const {
  if (step != nullptr) enter_step_(step);
}

void ApplicationList::Create(const ApplicationContext& context) {
  status_ = context.status;
  for (Entry* const entry : By(&ApplicationRow::create_rank)) {
    entry->application = entry->row->make(context);
    if (entry->application) context.cli_server->AddCommands(entry->application->Commands());
  }
}

void ApplicationList::Start() {
  for (Entry& entry : entries_) {
    const ApplicationRow& row = *entry.row;
    if (!entry.application || !Wanted(row)) continue;
    Enter(row.start_step);
    if (row.thread_name != nullptr) SetThreadName(row.thread_name);
    if (row.start_line != nullptr) ZLOG_INFO("%s", row.start_line);
    entry.started = true;
    const bool serves = entry.application->Start();
    if (!serves && row.start_failure == StartFailure::kEndsAgent) {
      throw std::runtime_error(std::string(row.name) + " failed to start");
    }
    AddToStatus(entry, serves);
  }
}

void ApplicationList::AddToStatus(const Entry& entry, bool serves) {
  if (!status_) return;
  // A row's own name is of the code; operators know the part by the step.
  const char* const part = entry.row->start_step != nullptr ? entry.row->start_step : entry.row->name;
  status_->AddSource(part, [&entry, part, serves](std::vector<PartState>* parts) {
    if (serves) {
      entry.application->Describe(parts);
    } else {
      parts->push_back({part, "did not start, and the daemon serves without it",
                        "the log tells why; repair that, then restart the daemon"});
    }
  });
}

void ApplicationList::WaitStarted() {
  for (const Entry& entry : entries_) {
    if (!entry.started || entry.row->wait_line == nullptr) continue;
    Enter(entry.row->wait_step);
    ZLOG_INFO("%s", entry.row->wait_line);
    entry.application->WaitStarted();
  }
}

void ApplicationList::Stop() {
  for (Entry* const entry : By(&ApplicationRow::stop_rank)) {
    if (std::exchange(entry->started, false)) entry->application->Stop();
  }
}

void ApplicationList::Destroy() {
  const auto created = By(&ApplicationRow::create_rank);
  for (auto entry = created.rbegin(); entry != created.rend(); ++entry) (*entry)->application.reset();
}

}  // namespace zem::Tarvik
