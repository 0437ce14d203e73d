#include <algorithm>
#include <cerrno>
#include <cstring>

#include "sim/firewall/tree/firewall_tree.h"
#include "sim/switch/tree/library_call.h"

namespace zem::sim::firewall {
namespace {

constexpr char kFiller = 'x';
constexpr uint32_t kDriverRefuses = 1;

void PutText(char* record, size_t offset, size_t size, const std::string& text, bool fill) {
  if (fill) std::memset(record + offset, kFiller, size);
  std::memcpy(record + offset, text.data(), std::min(text.size(), size));
}

void PutRecord(const Filter& filter, bool unterminated, char* record) {
  std::memset(record, 0, FW_FILTER_SIZE);
  PutText(record, FW_FILTER_NAME, FW_FILTER_NAME_SIZE, filter.name, unterminated);
  PutText(record, FW_FILTER_VM_UUID, FW_FILTER_VM_UUID_SIZE, filter.vm_uuid, false);
  std::memcpy(record + FW_FILTER_VNIC, &filter.vnic, sizeof(filter.vnic));
  std::memcpy(record + FW_FILTER_BYPASSED, &filter.bypassed, sizeof(filter.bypassed));
  std::memcpy(record + FW_FILTER_DROPPED, &filter.dropped, sizeof(filter.dropped));
  record[FW_FILTER_HAS_VIF] = filter.has_vif ? 1 : 0;
}

// Writes as many records as the buffer, and the count that the caller gives, have room for.
void Fill(const std::vector<Filter>& filters, DeviceFault fault, FW_DeviceBody* body) {
  const uint32_t room = std::min<uint32_t>(body->filter_count, body->buffer_size / FW_FILTER_SIZE);
  auto written = static_cast<uint32_t>(std::min<size_t>(room, filters.size()));
  if (fault == DeviceFault::kFewer) written = std::min(written, 1U);
  char* const buffer = reinterpret_cast<char*>(static_cast<uintptr_t>(body->buffer));
  for (uint32_t i = 0; i < written; ++i) {
    PutRecord(filters[i], fault == DeviceFault::kUnterminated, buffer + size_t{i} * FW_FILTER_SIZE);
  }
  body->filter_count = fault == DeviceFault::kMore ? written + 500 : written;
  if (fault == DeviceFault::kNullBuffer) body->buffer = 0;
}

}  // namespace

int ServeRequest(unsigned long request, FW_DeviceHeader* header) {
  const bool count = request == FW_REQUEST_FILTER_COUNT;
  if (!count && request != FW_REQUEST_FILTERS) {
    errno = ENOTTY;
    return -1;
  }
  LibraryCall call({count ? "filter-count" : "filters"});
  if (call.fails()) {
    // A fault with a result is the driver's status; one with errno fails the call.
    header->status = call.result();
    errno = call.error_number();
    return call.error_number() != 0 ? -1 : 0;
  }
  auto* const body = reinterpret_cast<FW_DeviceBody*>(static_cast<uintptr_t>(header->body));
  if (header->command != request || header->body_size != sizeof(*body) || body == nullptr) {
    Violation(count ? "filter-count" : "filters", "the header is not that of the request");
    header->status = call.Result(kDriverRefuses);
    return 0;
  }
  // The driver lists the filters of all agents.
  const std::vector<Filter> filters = Filters();
  header->status = 0;
  if (count) {
    body->filter_count = static_cast<uint32_t>(filters.size());
  } else {
    Fill(filters, CurrentDeviceFault(), body);
  }
  return 0;
}

}  // namespace zem::sim::firewall
