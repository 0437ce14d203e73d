// Any datagram: the line's reader, the records, the entry of the message and the tenant's splice.  Another
// JSON reader judges what ours accepts, so that neither a wrong text nor a wrong value gets through.

#include <cjson/cJSON.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "app/ctxteng/idsrecord/event_info.h"
#include "app/ctxteng/idsrecord/event_reader.h"
#include "app/ctxteng/idsrecord/json_line.h"
#include "app/ctxteng/idsrecord/tenant_line.h"
#include "proto/context/ids.pb.h"
#include "tests/support/silent_log.h"

namespace {

using namespace IdsEvtEng;

struct Delete {
  void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, Delete>;

void Require(bool holds) {
  if (!holds) std::abort();
}

// cJSON's texts end at a zero, and it answers halves of pairs in another way.
bool IsComparable(const std::string& line) {
  return line.find("\\u0000") == std::string::npos && line.find("\\ud") == std::string::npos &&
         line.find("\\uD") == std::string::npos;
}

void CompareTopLevel(const JsonLine& line, const cJSON* other) {
  const cJSON* const proto = cJSON_GetObjectItemCaseSensitive(other, "proto");
  if (proto != nullptr && cJSON_IsString(proto)) Require(line.Text(Member::kProto) == proto->valuestring);
  if (proto == nullptr) Require(!line.Has(Member::kProto));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zem::test::SilenceLog();
  const std::string text(reinterpret_cast<const char*>(data), size);
  JsonLine line;
  const EventType type = ReadEventType(text, &line);
  JsonLine again;
  if (again.Parse(text) && text.find('\0') == std::string::npos && IsComparable(text)) {
    const Json other(cJSON_ParseWithOpts(text.c_str(), nullptr, true));
    Require(other != nullptr);
    CompareTopLevel(again, other.get());
  }
  if (type != kOtherEvent) {
    const auto event = type == kAlertEvent ? ReadAlert(line) : ReadCapture(line);
    const EventLookups lookups{[](uint32_t) { return std::optional<std::string>("user"); },
                               [](uint32_t, orlane::zem::TenantContextMsg*) { return false; }};
    orlane::zem::context::ids::EventInfo info;
    BuildEventInfo(*event, lookups, &info);
    AddMetadata(*event, &info);
    Require(info.ByteSizeLong() < 4 * size + 1024);
  }
  const std::string with_tenant = AddTenant(text, [](uint32_t) { return "[org=\"o\"]: "; });
  if (with_tenant != text) {
    Require(again.Parse(with_tenant));
    Require(again.Text(Member::kTenancy) == "[org=\"o\"]: ");
  }
  return 0;
}
