#include "framework/cli/json_writer.h"

#include <cjson/cJSON.h>

#include <cstdio>
#include <new>
#include <utility>

#include "platform/core/text_repair.h"

namespace zem {

std::string JsonQuoted(std::string_view text) {
  constexpr unsigned char kFirstPlain = 0x20;
  std::string quoted = "\"";
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < kFirstPlain) {
      char code[sizeof("\\u0000")];
      std::snprintf(code, sizeof(code), "\\u%04x", static_cast<unsigned>(c));
      quoted += code;
      continue;
    }
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + '"';
}

JsonValue::JsonValue(cJSON* value) : value_(value) {
  if (value == nullptr) throw std::bad_alloc();
}
JsonValue::JsonValue(JsonValue&&) noexcept = default;
JsonValue& JsonValue::operator=(JsonValue&&) noexcept = default;
JsonValue::~JsonValue() = default;

void JsonValue::Deleter::operator()(cJSON* value) const { cJSON_Delete(value); }

JsonValue JsonValue::Object() { return JsonValue(cJSON_CreateObject()); }
JsonValue JsonValue::Array() { return JsonValue(cJSON_CreateArray()); }

JsonValue& JsonValue::Add(const char* key, const char* text) {
  return Add(key, JsonValue(cJSON_CreateString(RepairText(text).c_str())));
}
JsonValue& JsonValue::Add(const char* key, bool value) {
  return Add(key, JsonValue(cJSON_CreateBool(value)));
}
// Numbers of the library are doubles, which hold 53 bits.
JsonValue& JsonValue::Add(const char* key, int64_t number) {
  return Add(key, JsonValue(cJSON_CreateRaw(std::to_string(number).c_str())));
}
JsonValue& JsonValue::Add(const char* key, uint64_t number) {
  return Add(key, JsonValue(cJSON_CreateRaw(std::to_string(number).c_str())));
}
JsonValue& JsonValue::Add(const char* key, JsonValue value) {
  cJSON_AddItemToObject(value_.get(), key, value.value_.release());
  return *this;
}

JsonValue& JsonValue::Append(JsonValue value) {
  cJSON_AddItemToArray(value_.get(), value.value_.release());
  return *this;
}
JsonValue& JsonValue::Append(const char* text) {
  return Append(JsonValue(cJSON_CreateString(RepairText(text).c_str())));
}

std::string JsonValue::Text() const {
  const std::unique_ptr<char, void (*)(void*)> text(cJSON_PrintUnformatted(value_.get()), &cJSON_free);
  if (text == nullptr) throw std::bad_alloc();
  return text.get();
}

}  // namespace zem
