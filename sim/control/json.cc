#include "sim/control/json.h"

#include <new>

namespace zem::sim {
namespace {

constexpr int64_t kExact = int64_t{1} << 53;

cJSON* Checked(cJSON* item) {
  if (item == nullptr) throw std::bad_alloc();
  return item;
}

// cJSON needs zero-terminated texts.  A zero byte inside a text ends it, which is acceptable because these
// texts are only displayed.
cJSON* Text(std::string_view text) { return Checked(cJSON_CreateString(std::string(text).c_str())); }

}  // namespace

Json JsonObject() { return Json(Checked(cJSON_CreateObject())); }
Json JsonArray() { return Json(Checked(cJSON_CreateArray())); }

void AddMember(cJSON* object, const char* name, std::string_view text) {
  cJSON_AddItemToObject(object, name, Text(text));
}
void AddMember(cJSON* object, const char* name, const char* text) {
  AddMember(object, name, std::string_view(text));
}
void AddMember(cJSON* object, const char* name, int64_t number) {
  if (number > kExact || number < -kExact) {
    AddMember(object, name, std::string_view(std::to_string(number)));
  } else {
    cJSON_AddItemToObject(object, name, Checked(cJSON_CreateNumber(static_cast<double>(number))));
  }
}
void AddMember(cJSON* object, const char* name, uint64_t number) {
  if (number > static_cast<uint64_t>(kExact)) {
    AddMember(object, name, std::string_view(std::to_string(number)));
  } else {
    AddMember(object, name, static_cast<int64_t>(number));
  }
}
void AddMember(cJSON* object, const char* name, int number) {
  AddMember(object, name, static_cast<int64_t>(number));
}
void AddMember(cJSON* object, const char* name, uint32_t number) {
  AddMember(object, name, static_cast<int64_t>(number));
}
void AddMember(cJSON* object, const char* name, bool value) {
  cJSON_AddItemToObject(object, name, Checked(cJSON_CreateBool(value)));
}
void AddMember(cJSON* object, const char* name, Json value) {
  cJSON_AddItemToObject(object, name, value.release());
}

void AddItem(cJSON* array, Json value) { cJSON_AddItemToArray(array, value.release()); }
void AddItem(cJSON* array, std::string_view text) { cJSON_AddItemToArray(array, Text(text)); }

std::string JsonText(const cJSON* value) {
  char* text = cJSON_PrintUnformatted(value);
  if (text == nullptr) throw std::bad_alloc();
  std::string copy(text);
  cJSON_free(text);
  return copy;
}

}  // namespace zem::sim
