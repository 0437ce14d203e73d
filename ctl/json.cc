#include "ctl/json.h"

#include <cjson/cJSON.h>

#include <array>
#include <charconv>
#include <cmath>

#include "platform/core/text_repair.h"

namespace zem::ctl {

Json Json::Parse(const std::string& text) {
  std::shared_ptr<cJSON> root(cJSON_ParseWithLengthOpts(text.c_str(), text.size() + 1, nullptr, 1),
                              &cJSON_Delete);
  const cJSON* const value = root.get();
  return Json(std::move(root), value);
}

std::string Json::Quoted(const std::string& text) {
  const std::unique_ptr<cJSON, void (*)(cJSON*)> value(cJSON_CreateString(RepairText(text).c_str()),
                                                       &cJSON_Delete);
  return Json(std::shared_ptr<cJSON>(), value.get()).Compact();
}

Json Json::operator[](const char* key) const {
  const cJSON* const member = cJSON_GetObjectItemCaseSensitive(value_, key);
  return member == nullptr ? Json() : Json(root_, member);
}

std::vector<Json> Json::elements() const {
  std::vector<Json> elements;
  if (!cJSON_IsArray(value_)) return elements;
  for (const cJSON* element = value_->child; element != nullptr; element = element->next) {
    elements.push_back(Json(root_, element));
  }
  return elements;
}

size_t Json::size() const {
  return cJSON_IsArray(value_) ? static_cast<size_t>(cJSON_GetArraySize(value_)) : 0;
}

std::string Json::text() const {
  if (cJSON_IsArray(value_)) {
    std::string list;
    for (const Json& element : elements()) list += (list.empty() ? "" : ", ") + element.text();
    return list;
  }
  if (cJSON_IsString(value_)) return value_->valuestring;
  if (cJSON_IsBool(value_)) return cJSON_IsTrue(value_) ? "yes" : "no";
  if (!cJSON_IsNumber(value_)) return {};
  // Whole numbers without an exponent, as long as a double holds them exactly.
  constexpr double kMostWhole = 1e15;
  const double value = value_->valuedouble;
  const bool whole = std::abs(value) < kMostWhole && std::trunc(value) == value;
  std::array<char, 32> digits;
  const auto [end, error] =
      whole ? std::to_chars(digits.data(), digits.data() + digits.size(), static_cast<int64_t>(value))
            : std::to_chars(digits.data(), digits.data() + digits.size(), value);
  return error == std::errc() ? std::string(digits.data(), end) : std::string();
}

double Json::number() const { return cJSON_IsNumber(value_) ? value_->valuedouble : 0; }
bool Json::is_true() const { return cJSON_IsTrue(value_) != 0; }
bool Json::is_number() const { return cJSON_IsNumber(value_) != 0; }

std::string Json::Compact() const {
  const std::unique_ptr<char, void (*)(void*)> text(cJSON_PrintUnformatted(value_), &cJSON_free);
  return text == nullptr ? std::string() : text.get();
}

}  // namespace zem::ctl
