#include "framework/options/option_value.h"

#include <cjson/cJSON.h>

#include <array>
#include <charconv>
#include <memory>
#include <new>

namespace zem::Tarvik {
namespace {

struct FlagWord {
  std::string_view text;
  bool value;
};
constexpr std::array kFlagWords = {FlagWord{"true", true}, FlagWord{"false", false}, FlagWord{"1", true},
                                   FlagWord{"0", false}};

std::optional<bool> ParseFlag(std::string_view text) {
  for (const FlagWord& word : kFlagWords) {
    if (word.text == text) return word.value;
  }
  return std::nullopt;
}

std::optional<int64_t> ParseNumber(const OptionRow& row, std::string_view text) {
  int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number >= row.least && number <= row.most ? std::optional(number) : std::nullopt;
}

constexpr std::array kTypeWords = {"flag", "number", "text"};

using JsonPointer = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

JsonPointer Made(cJSON* value) {
  if (value == nullptr) throw std::bad_alloc();
  return {value, &cJSON_Delete};
}

void AddText(const JsonPointer& object, const char* name, const std::string& text) {
  cJSON_AddStringToObject(object.get(), name, text.c_str());
}

}  // namespace

bool FlagValue(const OptionRow& row, const std::optional<std::string>& given) {
  const std::optional<bool> value = given ? ParseFlag(*given) : std::nullopt;
  return value ? *value : *ParseFlag(row.standard);
}

int64_t NumberValue(const OptionRow& row, const std::optional<std::string>& given) {
  const std::optional<int64_t> value = given ? ParseNumber(row, *given) : std::nullopt;
  return value ? *value : *ParseNumber(row, row.standard);
}

std::string TextValue(const OptionRow& row, const std::optional<std::string>& given) {
  return given ? *given : std::string(row.standard);
}

std::string ValueInForce(const OptionRow& row, const std::optional<std::string>& given) {
  switch (row.type) {
    case OptionType::kFlag:
      return FlagValue(row, given) ? "true" : "false";
    case OptionType::kNumber:
      return std::to_string(NumberValue(row, given));
    case OptionType::kText:
      break;
  }
  return TextValue(row, given);
}

std::string RangeText(const OptionRow& row) {
  switch (row.type) {
    case OptionType::kFlag:
      return "true or false";
    case OptionType::kNumber:
      return std::to_string(row.least) + " to " + std::to_string(row.most);
    case OptionType::kText:
      break;
  }
  return "text";
}

std::string ValueFault(const OptionRow& row, const std::string& text) {
  const bool good = row.type == OptionType::kText || (row.type == OptionType::kFlag && ParseFlag(text)) ||
                    (row.type == OptionType::kNumber && ParseNumber(row, text));
  if (good) return {};
  return "\"" + text + "\" is not " + RangeText(row) + "; the default " + std::string(row.standard) +
         " is taken";
}

std::string OptionsText(const std::vector<OptionFault>& faults,
                        const std::function<std::optional<std::string>(const OptionRow&)>& given) {
  const JsonPointer answer = Made(cJSON_CreateObject());
  cJSON* const options = cJSON_AddArrayToObject(answer.get(), "options");
  for (const OptionRow& row : kOptionRows) {
    const std::optional<std::string> text = given(row);
    JsonPointer object = Made(cJSON_CreateObject());
    AddText(object, "key", std::string(row.key));
    AddText(object, "type", kTypeWords.at(static_cast<size_t>(row.type)));
    AddText(object, "range", RangeText(row));
    AddText(object, "default", std::string(row.standard));
    AddText(object, "value", ValueInForce(row, text));
    cJSON_AddBoolToObject(object.get(), "set", text.has_value());
    AddText(object, "effect", std::string(row.effect));
    cJSON_AddItemToArray(options, object.release());
  }
  cJSON* const list = cJSON_AddArrayToObject(answer.get(), "faults");
  for (const OptionFault& fault : faults) {
    JsonPointer object = Made(cJSON_CreateObject());
    cJSON_AddNumberToObject(object.get(), "line", fault.line);
    AddText(object, "key", fault.key);
    AddText(object, "what", fault.what);
    cJSON_AddItemToArray(list, object.release());
  }
  const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(answer.get()), &cJSON_free);
  if (text == nullptr) throw std::bad_alloc();
  return text.get();
}

}  // namespace zem::Tarvik
