#include "app/ctxteng/engine/guests_command.h"

#include <algorithm>

#include "app/ctxteng/guest/guest_table.h"
#include "framework/cli/json_writer.h"

namespace Ctxt {
namespace {

using zem::JsonValue;

// What one answer holds at most.
constexpr size_t kMostRows = 2'000;

const char* SystemWord(uint32_t type) {
  switch (type) {
    case kWindows:
      return "windows";
    case kLinux:
      return "linux";
    default:
      return "unknown";
  }
}

JsonValue Row(const VmData& guest) {
  JsonValue row = JsonValue::Object();
  row.Add("id", guest.vc_uuid)
      .Add("system", SystemWord(guest.os.os_type))
      .Add("vm_events", uint64_t{guest.vm_events})
      .Add("system_events", uint64_t{guest.system_events})
      .Add("network_events", uint64_t{guest.network_events})
      .Add("last_timer_event", uint64_t{guest.last_timer_event});
  return row;
}

}  // namespace

zem::Tarvik::CliCommand GuestsCommand(GuestTable& guests) {
  return {"get/guests", "", 0, 0, [&guests](const zem::Tarvik::CliArguments&, zem::Tarvik::CliReply reply) {
            auto all = guests.All();
            std::sort(all.begin(), all.end(),
                      [](const auto& left, const auto& right) { return left->vc_uuid < right->vc_uuid; });
            const size_t shown = std::min(all.size(), kMostRows);
            JsonValue rows = JsonValue::Array();
            for (size_t i = 0; i < shown; ++i) rows.Append(Row(*all[i]));
            JsonValue answer = JsonValue::Object();
            answer.Add("left_out", uint64_t{all.size() - shown}).Add("guests", std::move(rows));
            reply.Ok(answer.Text());
          }};
}

}  // namespace Ctxt
