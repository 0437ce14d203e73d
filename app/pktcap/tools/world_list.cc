#include "app/pktcap/tools/world_list.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>

namespace zem::Tarvik {
namespace {

constexpr std::string_view kLengthWord = "LENGTH: ";

struct JsonDelete {
  void operator()(cJSON* item) const { cJSON_Delete(item); }
};
using Json = std::unique_ptr<cJSON, JsonDelete>;

struct NumberField {
  const char* name;
  uint64_t HostWorld::*field;
};
constexpr std::array kNumbers = {
    NumberField{"worldId", &HostWorld::world_id},
    NumberField{"cartelId", &HostWorld::cartel_id},
    NumberField{"parentCartelId", &HostWorld::parent_cartel_id},
    NumberField{"schedGroupId", &HostWorld::sched_group_id},
    NumberField{"worldGroupId", &HostWorld::world_group_id},
    NumberField{"cartelGroupId", &HostWorld::cartel_group_id},
    NumberField{"sessionId", &HostWorld::session_id},
    NumberField{"usedTime", &HostWorld::used_time},
};

struct TextField {
  const char* name;
  std::string HostWorld::*field;
};
constexpr std::array kTexts = {
    TextField{"worldName", &HostWorld::world_name},
    TextField{"worldType", &HostWorld::world_type},
    TextField{"worldState", &HostWorld::world_state},
    TextField{"waitReason", &HostWorld::wait_reason},
    TextField{"commandLine", &HostWorld::command_line},
    TextField{"securityDomain", &HostWorld::security_domain},
};

HostWorld WorldOf(const cJSON* element) {
  HostWorld world;
  for (const NumberField& number : kNumbers) {
    const cJSON* const item = cJSON_GetObjectItemCaseSensitive(element, number.name);
    if (cJSON_IsNumber(item) && item->valuedouble >= 0) {
      world.*number.field = static_cast<uint64_t>(std::min(item->valuedouble, 9e15));
    }
  }
  for (const TextField& text : kTexts) {
    const char* const value = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(element, text.name));
    if (value != nullptr) world.*text.field = value;
  }
  return world;
}

}  // namespace

std::optional<size_t> ProxyBodyLength(std::string_view header) {
  if (header.size() != kProxyHeaderSize || !header.starts_with(kLengthWord) || header.back() != '\n') {
    return std::nullopt;
  }
  size_t length = 0;
  bool digits = false;
  for (const char c : header.substr(kLengthWord.size(), kProxyHeaderSize - 1 - kLengthWord.size())) {
    if (c == ' ' && !digits) continue;
    if (std::isdigit(static_cast<unsigned char>(c)) == 0) return std::nullopt;
    digits = true;
    length = length * 10 + static_cast<size_t>(c - '0');
  }
  return digits && length <= kLongestProxyBody ? std::optional(length) : std::nullopt;
}

std::optional<WorldReply> ParseWorldReply(std::string_view body) {
  const Json parsed(cJSON_ParseWithLength(body.data(), body.size()));
  const cJSON* const status = cJSON_GetObjectItemCaseSensitive(parsed.get(), "status");
  if (!cJSON_IsNumber(status)) return std::nullopt;
  WorldReply reply;
  reply.status = status->valuedouble;
  const char* const error = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(parsed.get(), "error_msg"));
  if (error != nullptr) reply.error = error;
  const cJSON* const list = cJSON_GetObjectItemCaseSensitive(parsed.get(), "response");
  if (!cJSON_IsArray(list)) return reply;
  reply.worlds.emplace();
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, list) reply.worlds->push_back(WorldOf(element));
  return reply;
}

}  // namespace zem::Tarvik
