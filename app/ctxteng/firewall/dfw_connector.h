#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "app/ctxteng/base/locks.h"
#include "app/ctxteng/firewall/connection_attributes.h"
#include "app/ctxteng/firewall/filter_scan.h"
#include "platform/core/condition.h"
#include "platform/core/stop_signal.h"
#include "platform/core/thread.h"

namespace Ctxt {

class IFwLib;

namespace DfwUtil {

/// The bridge to the host's firewall: knows the filters of each guest's vNICs, read once a minute and
/// whenever a guest powers on, and attaches users, their groups and processes to connections.
///
/// Threads: all operations from any thread.  `GetFilters` waits for the device; `Add*` call the library and
/// never wait for a scan.
class DfwConnector {
 public:
  /// What `AddUser` and `AddUserAndProcess` give.
  enum Result { kFailed = 0, kDone = 1, kWantsMembership = 2 };
  using MakeLibrary = std::function<std::unique_ptr<IFwLib>()>;

  /// The process's connector.
  static DfwConnector& GetInstance();

  /// `make_library` is called by `Initialize`.
  explicit DfwConnector(MakeLibrary make_library);
  virtual ~DfwConnector();
  DfwConnector(const DfwConnector&) = delete;
  DfwConnector& operator=(const DfwConnector&) = delete;

  /// Initializes the library and starts the scans.  Acts once; throws CtxtFwInitError, or
  /// CtxtBoostThreadResourceError, and may then be called again.
  virtual void Initialize();
  /// Ends the scans.  Acts once.
  virtual void Stop();
  /// 1, or 0 when the guest has no filter or the firewall refuses.
  virtual int AddUserGroupMembership(const DfwUserProcessInfo& info);
  virtual int AddUser(const DfwUserProcessInfo& info);
  /// As `AddUser`, with the process.
  virtual int AddUserAndProcess(const DfwUserProcessInfo& info);
  /// Reads the filters of `agent`; calls that come while the device is being read share the next reading, and
  /// wait at most 10 seconds for the one that runs.  Returns 1, or 0 when the reading failed; then no guest
  /// has a filter until the next one.
  virtual int GetFilters(const std::string& agent);
  /// Whether the sum of the counters of all filters moved between the last two scans of the minute.  False
  /// before the first successful one.
  virtual bool IsBypassChanged() const { return filters_read_ && bypass_changed_; }
  virtual bool IsDropChanged() const { return filters_read_ && drop_changed_; }

 private:
  void InitializeLibrary();
  void RunScans();
  bool ScanCounters(const std::string& agent);
  std::optional<FilterScan> Scan(const std::string& agent);
  void NoteCounters(const FilterScan& scan);
  std::set<uint32_t> FiltersOf(const std::string& vm);
  int Add(const DfwUserProcessInfo& info, bool with_process);

  const MakeLibrary make_library_;
  std::unique_ptr<IFwLib> library_;
  FW_Handle handle_ = nullptr;
  std::once_flag initialize_once_;
  std::once_flag stop_once_;
  zem::StopSignal stop_;
  zem::NativeThread scans_thread_;

  Locks::Mutex filters_mutex_;  // guards vm_filters_
  VmFilters vm_filters_;

  std::mutex scan_mutex_;  // guards what follows, and is free while the device is read
  zem::Condition scan_ended_;
  bool scanning_ = false;
  uint64_t scans_begun_ = 0;
  bool last_scan_good_ = false;
  std::string last_agent_;

  // Owned by the thread of the scans.
  uint64_t prev_bypass_ = 0;
  uint64_t prev_drop_ = 0;
  std::atomic<bool> filters_read_{false};
  std::atomic<bool> bypass_changed_{false};
  std::atomic<bool> drop_changed_{false};
};

}  // namespace DfwUtil
}  // namespace Ctxt
