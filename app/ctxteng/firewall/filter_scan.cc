#include "app/ctxteng/firewall/filter_scan.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "app/ctxteng/firewall/fw_lib.h"
#include "framework/log/log.h"
#include "platform/firewall/filter_device.h"

namespace Ctxt::DfwUtil {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};
constexpr uint32_t kMostFilters = 65536;

// The device while it is open.  A request that fails has closed it; a driver that only reports a status has
// not.
class Device {
 public:
  explicit Device(IFwLib& library) : library_(library), descriptor_(library.OpenDevice(FW_DEVICE)) {}
  ~Device() {
    if (open_ && descriptor_ >= 0) library_.CloseDevice(descriptor_);
  }
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  /// Returns false, with the driver's status, when the call or the driver failed.
  bool Ask(uint32_t request, FW_DeviceBody* body, uint32_t* status) {
    FW_DeviceHeader header{request, 0, sizeof(*body), reinterpret_cast<uintptr_t>(body)};
    open_ = library_.DeviceIoctl(descriptor_, request, &header) == 0;
    *status = header.status;
    return open_ && header.status == 0;
  }

 private:
  IFwLib& library_;
  const int descriptor_;
  bool open_ = true;
};

// A text field, which may lack its terminating zero.
std::string Text(const char* record, size_t offset, size_t size) {
  return {record + offset, ::strnlen(record + offset, size)};
}

template <class Number>
Number Read(const char* record, size_t offset) {
  Number number{};
  std::memcpy(&number, record + offset, sizeof(number));
  return number;
}

void AddFilter(const char* record, const std::string& agent, FilterScan* scan) {
  const std::string name = Text(record, FW_FILTER_NAME, FW_FILTER_NAME_SIZE);
  if (::strncasecmp(name.c_str(), agent.c_str(), agent.size()) != 0) {
    ZLOG_DEBUG("DfwConnector: Filter name does not match %s", name.c_str());
    return;
  }
  const std::string uuid = Text(record, FW_FILTER_VM_UUID, FW_FILTER_VM_UUID_SIZE);
  const auto vnic = Read<uint32_t>(record, FW_FILTER_VNIC);
  if (record[FW_FILTER_HAS_VIF] == 0) {
    ZLOG_DEBUG("DfwConnector: Filter fpName %s, UUID %s, vnic %u does not have a vifId", name.c_str(),
               uuid.c_str(), vnic);
    return;
  }
  scan->bypassed += Read<uint64_t>(record, FW_FILTER_BYPASSED);
  scan->dropped += Read<uint64_t>(record, FW_FILTER_DROPPED);
  ZLOG_DEBUG("DfwConnector: Adding filter fpName %s, UUID %s, vnic %u", name.c_str(), uuid.c_str(), vnic);
  scan->filters[uuid].insert(vnic);
}

}  // namespace

FilterScan ParseFilters(std::span<const char> records, const std::string& agent) {
  FilterScan scan;
  scan.any = records.size() >= FW_FILTER_SIZE;
  for (size_t at = 0; records.size() - at >= FW_FILTER_SIZE; at += FW_FILTER_SIZE) {
    AddFilter(records.data() + at, agent, &scan);
  }
  return scan;
}

std::optional<FilterScan> ReadFilters(IFwLib& library, const std::string& agent) {
  Device device(library);
  FW_DeviceBody body{};
  std::memcpy(body.agent, agent.data(), std::min(agent.size(), sizeof(body.agent) - 1));
  uint32_t status = 0;
  if (!device.Ask(FW_REQUEST_FILTER_COUNT, &body, &status)) {
    ZLOG_CTX_ERROR(1009, "DfwConnector: Ioctl failed to get filter count, status: %u", status);
    return std::nullopt;
  }
  const uint32_t count = body.filter_count;
  if (count == 0) {
    ZLOG_INFO("DfwConnector: No filters found for agent %s", agent.c_str());
    return FilterScan();
  }
  ZLOG_INFO("DfwConnector: Total filter count for agent %s is %u", agent.c_str(), count);
  const size_t size = size_t{count} * FW_FILTER_SIZE;
  const std::unique_ptr<char[]> buffer(count <= kMostFilters ? new (std::nothrow) char[size]() : nullptr);
  if (!buffer) {
    ZLOG_CTX_ERROR(1054, "DfwConnector: Insufficient memory for getting filters: %u", count);
    return std::nullopt;
  }
  body.buffer_size = static_cast<uint32_t>(size);
  body.buffer = reinterpret_cast<uintptr_t>(buffer.get());
  if (!device.Ask(FW_REQUEST_FILTERS, &body, &status)) {
    ZLOG_CTX_ERROR(1008, "DfwConnector: Ioctl failed to get filters: %u", status);
    return std::nullopt;
  }
  if (body.buffer == 0) {
    ZLOG_CTX_ERROR(1010, "DfwConnector: Filter details for agent %s are NULL", agent.c_str());
    return std::nullopt;
  }
  // Filters may have gone between the two requests; those that came do not fit.
  const size_t written = size_t{std::min(count, body.filter_count)} * FW_FILTER_SIZE;
  return ParseFilters({buffer.get(), written}, agent);
}

}  // namespace Ctxt::DfwUtil
