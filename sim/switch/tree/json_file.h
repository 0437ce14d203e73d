#pragma once

#include <cjson/cJSON.h>

#include <memory>
#include <string>

namespace zem::sim {

struct JsonFileDelete {
  void operator()(cJSON* value) const { cJSON_Delete(value); }
};
using JsonFile = std::unique_ptr<cJSON, JsonFileDelete>;

/// Null when the file is not there or does not read.
JsonFile ReadJson(const std::string& path);
[[nodiscard]] bool WriteJson(const std::string& path, const cJSON* value);
/// Empty when there is no such text.
std::string JsonString(const cJSON* object, const char* name);
/// 0 when there is no such number.
int JsonNumber(const cJSON* object, const char* name);
void SetJson(cJSON* object, const char* name, const std::string& text);
void SetJson(cJSON* object, const char* name, int number);
void SetJson(cJSON* object, const char* name, bool value);

/// The id of the switch that has the name; empty for none.
std::string SwitchIdOfName(const std::string& name);

}  // namespace zem::sim
