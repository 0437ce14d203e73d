#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <unordered_map>

namespace Ctxt {

class IFwLib;

namespace DfwUtil {

/// The vNICs of each guest, by the text of its "vc.uuid" as it stands in the guest's file.
using VmFilters = std::unordered_map<std::string, std::set<uint32_t>>;

/// What one reading of the firewall's filters gave.
struct FilterScan {
  VmFilters filters;
  uint64_t bypassed = 0;
  uint64_t dropped = 0;
  /// False when the firewall has no filter at all.
  bool any = false;
};

/// Reads the filters of `agent` from the device.  Nothing when that fails, which is logged.
std::optional<FilterScan> ReadFilters(IFwLib& library, const std::string& agent);

/// Takes the filters of `agent` out of whole records, however little of a record is text.
FilterScan ParseFilters(std::span<const char> records, const std::string& agent);

}  // namespace DfwUtil
}  // namespace Ctxt
