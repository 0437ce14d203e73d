#include "app/ctxteng/firewall/dfw_connector.h"

#include <utility>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/firewall/fw_lib.h"
#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"
#include "platform/firewall/filter_device.h"

// A scan takes as long as the driver takes, and guests need their filters meanwhile.  So the new map is built
// aside and put in place at the end; only a scan that fails leaves every guest without filters.  Guests that
// power on together would each ask for a scan: whoever comes while one runs waits for the next, which then
// serves all of them.

namespace Ctxt::DfwUtil {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};
constexpr int kScanSeconds = 60;
constexpr auto kLongestWait = std::chrono::seconds(10);
constexpr FW_Pair kLibraryOptions[] = {{"FWIODeviceName", FW_DEVICE}};

}  // namespace

DfwConnector& DfwConnector::GetInstance() {
  static DfwConnector* const connector = new DfwConnector([] { return std::make_unique<FwLibImpl>(); });
  return *connector;
}

DfwConnector::DfwConnector(MakeLibrary make_library) : make_library_(std::move(make_library)) {}

DfwConnector::~DfwConnector() {
  stop_.Stop();
  if (scans_thread_.joinable()) scans_thread_.Join();
}

void DfwConnector::Initialize() {
  std::call_once(initialize_once_, [this] {
    if (handle_ == nullptr) InitializeLibrary();
    ZLOG_INFO("DfwConnector: Initializing firewall library getfilters thread");
    try {
      zem::NativeThread::Options options;
      options.name = "ctxt:fwFilters";
      scans_thread_ = zem::NativeThread(std::move(options), [this] { RunScans(); });
    } catch (const std::exception& error) {
      ZLOG_CTX_ERROR(1011, "DfwConnector: Boost thread resource exception - %s", error.what());
      throw CtxtBoostThreadResourceError(error.what());
    }
  });
}

void DfwConnector::InitializeLibrary() {
  library_ = make_library_();
  ZLOG_INFO("DfwConnector: Initializing firewall library");
  FW_InitBlock block{};
  const FW_Status status =
      library_->FW_Initialize(FW_VERSION, kLibraryOptions, 1, FW_INIT_MODE, &block, &handle_);
  if (status != FW_OK) {
    const CtxtFwInitError error(library_->FW_StatusToString(status));
    ZLOG_CTX_ERROR(1011, "DfwConnector: Exception in FWLibrary initialization - %s", error.what());
    throw error;
  }
  ZLOG_INFO("DfwConnector: Firewall library successfully initialized");
}

void DfwConnector::Stop() {
  std::call_once(stop_once_, [this] {
    ZLOG_INFO("DfwConnector: Interrupting FW GetFilters thread");
    stop_.Stop();
    if (scans_thread_.joinable()) scans_thread_.Join();
  });
}

void DfwConnector::RunScans() {
  const zem::LoopThread loop("ctxt:fwFilters", zem::LoopKind::kWorker);
  while (!stop_.stopped()) {
    ZLOG_DEBUG("DfwConnector: Fetching VM filters");
    if (!ScanCounters(kAgent)) {
      ZLOG_CTX_ERROR(1008, "DfwConnector: Failed to get VM filters. Retrying in %d seconds", kScanSeconds);
    }
    stop_.WaitFor(std::chrono::seconds(kScanSeconds));
  }
  ZLOG_INFO("DfwConnector: FW GetFilters thread interrupted, exiting");
}

// The counters move the flags in the scans of the minute alone: a guest that powers on between two of them
// must not reset a flag that nobody has seen yet.
bool DfwConnector::ScanCounters(const std::string& agent) {
  const zem::LoopStep step("scan of filters");
  {
    std::unique_lock lock(scan_mutex_);
    scan_ended_.Wait(lock, [this] { return !scanning_; });
    scanning_ = true;
    ++scans_begun_;
  }
  const std::optional<FilterScan> scan = Scan(agent);
  if (scan) NoteCounters(*scan);
  return scan.has_value();
}

int DfwConnector::GetFilters(const std::string& agent) {
  {
    std::unique_lock lock(scan_mutex_);
    const uint64_t begun = scans_begun_;
    // The caller is a thread of a guest, which a driver that hangs must not take along.
    if (!scan_ended_.WaitFor(lock, kLongestWait, [this] { return !scanning_; })) {
      ZLOG_WARN("DfwConnector: The filters are being read for too long, not waiting any more");
      return kFailed;
    }
    // One that began after this call sees what this call is about.
    if (scans_begun_ > begun && last_agent_ == agent) return last_scan_good_ ? kDone : kFailed;
    scanning_ = true;
    ++scans_begun_;
  }
  return Scan(agent) ? kDone : kFailed;
}

std::optional<FilterScan> DfwConnector::Scan(const std::string& agent) {
  std::optional<FilterScan> scan;
  try {
    if (library_) scan = ReadFilters(*library_, agent);
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(1008, "DfwConnector: Failed to read the filters: %s", error.what());
  }
  VmFilters filters;
  if (scan) filters = scan->filters;
  {
    const Locks::ScopedLock lock(filters_mutex_);
    vm_filters_.swap(filters);
  }
  std::lock_guard lock(scan_mutex_);
  scanning_ = false;
  last_scan_good_ = scan.has_value();
  last_agent_ = agent;
  scan_ended_.NotifyAll();
  return scan;
}

void DfwConnector::NoteCounters(const FilterScan& scan) {
  if (!scan.any) {
    bypass_changed_ = false;
    drop_changed_ = false;
    return;
  }
  ZLOG_DEBUG("DfwConnector: prevBypass: %lu, curBypass: %lu, prevDrop: %lu, curDrop: %lu", prev_bypass_,
             scan.bypassed, prev_drop_, scan.dropped);
  bypass_changed_ = scan.bypassed != std::exchange(prev_bypass_, scan.bypassed);
  drop_changed_ = scan.dropped != std::exchange(prev_drop_, scan.dropped);
  filters_read_ = true;
}

std::set<uint32_t> DfwConnector::FiltersOf(const std::string& vm) {
  const Locks::ScopedLock lock(filters_mutex_);
  const auto found = vm_filters_.find(vm);
  return found == vm_filters_.end() ? std::set<uint32_t>() : found->second;
}

int DfwConnector::AddUser(const DfwUserProcessInfo& info) { return Add(info, false); }

int DfwConnector::AddUserAndProcess(const DfwUserProcessInfo& info) { return Add(info, true); }

int DfwConnector::Add(const DfwUserProcessInfo& info, bool with_process) {
  ZLOG_DEBUG("DfwConnector: Adding info for User SID %s, process key: %lu, protocol: %u",
             info.user_dfw_key.c_str(), info.process_dfw_key, info.protocol);
  ZLOG_DEBUG("\tSource: [%s]:%u", info.src_ip.c_str(), info.src_port);
  ZLOG_DEBUG("\tDest  : [%s]:%u", info.dest_ip.c_str(), info.dest_port);
  const std::set<uint32_t> vnics = FiltersOf(info.nc_vc_uuid);
  if (vnics.empty()) {
    ZLOG_INFO("DfwConnector: No filters found for VM %s, cannot add 5-tuple information",
              info.nc_vc_uuid.c_str());
    return kFailed;
  }
  ZLOG_DEBUG("DfwConnector: Found filter list for VM %s, count = %d", info.nc_vc_uuid.c_str(),
             static_cast<int>(vnics.size()));
  switch (SetConnection(*library_, handle_, info, vnics, with_process)) {
    case FW_OK:
      return kDone;
    case FW_UNKNOWN_MEMBERSHIP:
      return kWantsMembership;
    default:
      return kFailed;
  }
}

int DfwConnector::AddUserGroupMembership(const DfwUserProcessInfo& info) {
  const std::set<uint32_t> vnics = FiltersOf(info.nc_vc_uuid);
  if (vnics.empty()) {
    ZLOG_CTX_ERROR(1001, "DfwConnector: No filters found for VM %s, cannot add user-group membership",
                   info.nc_vc_uuid.c_str());
    return kFailed;
  }
  // The membership belongs to the user, not to a filter, so one filter is enough.
  return SetMembership(*library_, handle_, info, *vnics.begin()) == FW_OK ? kDone : kFailed;
}

}  // namespace Ctxt::DfwUtil
