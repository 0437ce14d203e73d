#include "sim/switch/tree/json_file.h"

#include <cstdlib>

#include "sim/switch/tree/state_tree.h"

namespace zem::sim {
namespace {

void Set(cJSON* object, const char* name, cJSON* value) {
  if (cJSON_HasObjectItem(object, name)) {
    cJSON_ReplaceItemInObjectCaseSensitive(object, name, value);
  } else {
    cJSON_AddItemToObject(object, name, value);
  }
}

}  // namespace

JsonFile ReadJson(const std::string& path) {
  const auto text = tree::ReadFile(path);
  return JsonFile(text ? cJSON_ParseWithLength(text->data(), text->size()) : nullptr);
}

bool WriteJson(const std::string& path, const cJSON* value) {
  const std::unique_ptr<char, void (*)(void*)> text(cJSON_PrintUnformatted(value), &cJSON_free);
  return text != nullptr && tree::WriteFile(path, std::string(text.get()) + "\n");
}

std::string JsonString(const cJSON* object, const char* name) {
  const char* const text = cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object, name));
  return text == nullptr ? "" : text;
}

int JsonNumber(const cJSON* object, const char* name) {
  const cJSON* const item = cJSON_GetObjectItemCaseSensitive(object, name);
  return cJSON_IsNumber(item) ? item->valueint : 0;
}

void SetJson(cJSON* object, const char* name, const std::string& text) {
  Set(object, name, cJSON_CreateString(text.c_str()));
}
void SetJson(cJSON* object, const char* name, int number) { Set(object, name, cJSON_CreateNumber(number)); }
void SetJson(cJSON* object, const char* name, bool value) { Set(object, name, cJSON_CreateBool(value)); }

std::string SwitchIdOfName(const std::string& name) {
  for (const std::string& id : tree::List(tree::SwitchesDir()).value_or(std::vector<std::string>())) {
    const JsonFile meta = ReadJson(tree::SwitchDir(id) + "/meta.json");
    if (meta && JsonString(meta.get(), "name") == name) return id;
  }
  return {};
}

}  // namespace zem::sim
