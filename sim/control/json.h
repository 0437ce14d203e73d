#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace zem::sim {

struct JsonDelete {
  void operator()(cJSON* item) const { cJSON_Delete(item); }
};
/// An owned JSON value.
using Json = std::unique_ptr<cJSON, JsonDelete>;

Json JsonObject();
Json JsonArray();

/// Adds a member to `object`.  Numbers beyond 2^53 are written as text, since JSON readers would round them.
void AddMember(cJSON* object, const char* name, std::string_view text);
void AddMember(cJSON* object, const char* name, const char* text);
void AddMember(cJSON* object, const char* name, int64_t number);
void AddMember(cJSON* object, const char* name, uint64_t number);
void AddMember(cJSON* object, const char* name, int number);
void AddMember(cJSON* object, const char* name, uint32_t number);
void AddMember(cJSON* object, const char* name, bool value);
void AddMember(cJSON* object, const char* name, Json value);

/// Appends to `array`.
void AddItem(cJSON* array, Json value);
void AddItem(cJSON* array, std::string_view text);

/// Serialises the value on one line.
std::string JsonText(const cJSON* value);

}  // namespace zem::sim
