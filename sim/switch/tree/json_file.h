#pragma once

#include <cjson/cJSON.h>

#include <memory>
#include <string>

namespace zem::sim {

struct JsonFileDelete {
  void operator()(cJSON* value) const { cJSON_Delete(value); }
};
using JsonFile = std::unique_ptr<cJSON, JsonFileDelete>;

/// Returns null when the file does not exist or cannot be parsed.
JsonFile ReadJson(const std::string& path);
[[nodiscard]] bool WriteJson(const std::string& path, const cJSON* value);
/// Returns an empty text when there is no such member.
std::string JsonString(const cJSON* object, const char* name);
/// Returns 0 when there is no such number.
int JsonNumber(const cJSON* object, const char* name);
void SetJson(cJSON* object, const char* name, const std::string& text);
void SetJson(cJSON* object, const char* name, int number);
void SetJson(cJSON* object, const char* name, bool value);

/// Returns the id of the switch with this name; empty when there is none.
std::string SwitchIdOfName(const std::string& name);

}  // namespace zem::sim
