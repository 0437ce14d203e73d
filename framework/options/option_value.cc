#include "framework/options/option_value.h"

#include <cjson/cJSON.h>

#include <array>
#include <charconv>
#include <limits>
#include <memory>
#include <new>

#include "platform/core/text_repair.h"

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

std::optional<int64_t> ParseNumber(std::string_view text) {
  int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (end != text.data() + text.size() || text.empty()) return std::nullopt;
  if (error == std::errc()) return number;
  if (error != std::errc::result_out_of_range) return std::nullopt;
  return text.front() == '-' ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
}

bool InRange(const OptionRow& row, int64_t number) { return number >= row.least && number <= row.most; }

bool FitsLength(const OptionRow& row, const std::string& text) {
  const auto length = static_cast<int64_t>(text.size());
  return length >= row.least && (row.most == 0 || length <= row.most);
}

// As it is for a number that makes the file unusable: who refuses the file tells of it.
int64_t OutsideNumber(const OptionRow& row, int64_t number) {
  switch (row.out_of_range) {
    case OutOfRange::kInstead:
      return row.instead;
    case OutOfRange::kRefused:
      return number;
    case OutOfRange::kDefault:
      break;
  }
  return *ParseNumber(row.standard);
}

// A value as a message shows it: whole for what somebody has typed, and without what steers a terminal.
std::string Shown(const std::string& text) {
  constexpr size_t kMostShown = 64;
  constexpr unsigned char kFirstPrintable = 0x20;
  std::string shown = RepairText(text.substr(0, kMostShown));
  for (char& c : shown) {
    if (static_cast<unsigned char>(c) < kFirstPrintable) c = '?';
  }
  return shown + (text.size() > kMostShown ? "..." : "");
}

std::string ConsequenceText(const OptionRow& row, const std::string& text) {
  const bool in_place = row.type == OptionType::kNumber && ParseNumber(text).has_value();
  if (row.out_of_range == OutOfRange::kInstead && in_place) return std::to_string(row.instead) + " is taken";
  if (row.out_of_range == OutOfRange::kRefused && (in_place || row.type == OptionType::kText))
    return "the file is not used";
  return "the default " + std::string(row.standard) + " is taken";
}

constexpr std::array kTypeWords = {"flag", "number", "text", "list"};

using JsonPointer = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

JsonPointer Made(cJSON* value) {
  if (value == nullptr) throw std::bad_alloc();
  return {value, &cJSON_Delete};
}

void AddText(const JsonPointer& object, const char* name, const std::string& text) {
  cJSON_AddStringToObject(object.get(), name, RepairText(text).c_str());
}

}  // namespace

bool FlagValue(const OptionRow& row, const std::optional<std::string>& given) {
  const std::optional<bool> value = given ? ParseFlag(*given) : std::nullopt;
  return value ? *value : *ParseFlag(row.standard);
}

int64_t NumberValue(const OptionRow& row, const std::optional<std::string>& given) {
  const std::optional<int64_t> number = given ? ParseNumber(*given) : std::nullopt;
  if (!number) return *ParseNumber(row.standard);
  return InRange(row, *number) ? *number : OutsideNumber(row, *number);
}

std::string TextValue(const OptionRow& row, const std::optional<std::string>& given) {
  if (!given) return std::string(row.standard);
  return FitsLength(row, *given) || row.out_of_range == OutOfRange::kRefused ? *given
                                                                             : std::string(row.standard);
}

std::string ValueInForce(const OptionRow& row, const std::optional<std::string>& given) {
  switch (row.type) {
    case OptionType::kFlag:
      return FlagValue(row, given) ? "true" : "false";
    case OptionType::kNumber:
      return std::to_string(NumberValue(row, given));
    case OptionType::kText:
      return TextValue(row, given);
    case OptionType::kList:
      break;
  }
  return given.value_or(std::string());
}

bool IsNumber(const std::string& text) { return ParseNumber(text).has_value(); }

std::string RangeText(const OptionRow& row) {
  switch (row.type) {
    case OptionType::kFlag:
      return "true or false";
    case OptionType::kNumber:
      if (row.least == kLeastWhole && row.most == kMostWhole) return "a whole number of 32 bits";
      return std::to_string(row.least) + " to " + std::to_string(row.most);
    case OptionType::kText:
      if (row.most > 0) return std::to_string(row.least) + " to " + std::to_string(row.most) + " characters";
      return row.least > 0 ? "text, not empty" : "text";
    case OptionType::kList:
      break;
  }
  return "list of texts";
}

std::string ValueFault(const OptionRow& row, const std::string& text) {
  bool good = true;
  if (row.type == OptionType::kFlag) {
    good = ParseFlag(text).has_value();
  } else if (row.type == OptionType::kNumber) {
    const std::optional<int64_t> number = ParseNumber(text);
    good = number && InRange(row, *number);
  } else if (row.type == OptionType::kText) {
    good = FitsLength(row, text);
  }
  if (good) return {};
  return "\"" + Shown(text) + "\" is not " + RangeText(row) + "; " + ConsequenceText(row, text);
}

std::string OptionsText(std::span<const OptionRow> rows, const std::vector<OptionFault>& faults,
                        const std::function<std::optional<std::string>(const OptionRow&)>& given) {
  const JsonPointer answer = Made(cJSON_CreateObject());
  cJSON* const options = cJSON_AddArrayToObject(answer.get(), "options");
  for (const OptionRow& row : rows) {
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
