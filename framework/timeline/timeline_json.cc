#include "framework/timeline/timeline_json.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>
#include <memory>

namespace zem::Tarvik {
namespace {

using timeline::OperationReading;
using timeline::State;
using timeline::StepReading;

constexpr std::array kStates = {"under way", "done", "failed"};
constexpr size_t kMostSteps = 4096;
constexpr size_t kMostKeys = 256;
constexpr int64_t kDeepest = 64;

int64_t Micros(WallTime time) {
  return std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
}

std::string UtcText(int64_t micros) {
  const std::time_t seconds = micros / 1'000'000;
  std::tm utc{};
  ::gmtime_r(&seconds, &utc);
  char text[64];
  const size_t length = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &utc);
  char fraction[16];
  std::snprintf(fraction, sizeof(fraction), ".%06dZ", static_cast<int>(micros % 1'000'000));
  return std::string(text, length) + fraction;
}

JsonValue StepJson(const StepReading& step) {
  JsonValue object = JsonValue::Object();
  object.Add("name", step.name)
      .Add("start_us", step.start_us)
      .Add("duration_us", step.duration_us)
      .Add("thread", step.thread)
      .Add("depth", step.depth);
  if (!step.detail.empty()) object.Add("detail", step.detail);
  if (!step.result.empty()) object.Add("result", step.result);
  if (step.failed) object.Add("failed", true);
  return object;
}

std::string TextOf(const cJSON* object, const char* name) {
  const cJSON* const member = cJSON_GetObjectItemCaseSensitive(object, name);
  return cJSON_IsString(member) ? member->valuestring : "";
}

int64_t NumberOf(const cJSON* object, const char* name) {
  constexpr double kExact = 9007199254740992.0;
  const cJSON* const member = cJSON_GetObjectItemCaseSensitive(object, name);
  if (!cJSON_IsNumber(member) || !(std::fabs(member->valuedouble) <= kExact)) return 0;
  return static_cast<int64_t>(member->valuedouble);
}

}  // namespace

JsonValue TimelineJson(const OperationReading& operation, bool with_steps) {
  const int64_t begun = Micros(operation.begun);
  JsonValue object = JsonValue::Object();
  object.Add("number", operation.number)
      .Add("kind", operation.kind)
      .Add("what", operation.what)
      .Add("begun", UtcText(begun))
      .Add("begun_us", begun)
      .Add("duration_us", operation.duration_us)
      .Add("state", kStates.at(static_cast<size_t>(operation.state)));
  if (!operation.error.empty()) object.Add("error", operation.error);
  if (operation.earlier_life) object.Add("earlier_life", true);
  JsonValue keys = JsonValue::Array();
  for (const std::string& key : operation.keys) keys.Append(key.c_str());
  object.Add("keys", std::move(keys));
  if (!with_steps) return object;
  if (operation.left_out != 0) object.Add("left_out", operation.left_out);
  JsonValue steps = JsonValue::Array();
  for (const StepReading& step : operation.steps) steps.Append(StepJson(step));
  object.Add("steps", std::move(steps));
  return object;
}

std::optional<OperationReading> ReadTimeline(std::string_view text) {
  const std::unique_ptr<cJSON, void (*)(cJSON*)> root(cJSON_ParseWithLength(text.data(), text.size()),
                                                      &cJSON_Delete);
  const cJSON* const steps = cJSON_GetObjectItemCaseSensitive(root.get(), "steps");
  if (!cJSON_IsObject(root.get()) || !cJSON_IsArray(steps)) return std::nullopt;
  OperationReading operation;
  operation.number = static_cast<uint64_t>(NumberOf(root.get(), "number"));
  operation.kind = TextOf(root.get(), "kind");
  operation.what = TextOf(root.get(), "what");
  operation.error = TextOf(root.get(), "error");
  operation.begun = WallTime(std::chrono::microseconds(NumberOf(root.get(), "begun_us")));
  operation.duration_us = NumberOf(root.get(), "duration_us");
  operation.left_out = static_cast<uint64_t>(NumberOf(root.get(), "left_out"));
  const std::string state = TextOf(root.get(), "state");
  size_t known = 0;
  while (known < kStates.size() && state != kStates[known]) ++known;
  if (known == kStates.size() || operation.kind.empty()) return std::nullopt;
  operation.state = static_cast<State>(known);
  const cJSON* each = nullptr;
  cJSON_ArrayForEach(each, cJSON_GetObjectItemCaseSensitive(root.get(), "keys")) {
    if (cJSON_IsString(each) && operation.keys.size() < kMostKeys)
      operation.keys.emplace_back(each->valuestring);
  }
  cJSON_ArrayForEach(each, steps) {
    if (operation.steps.size() == kMostSteps) break;
    StepReading& step = operation.steps.emplace_back();
    step.name = TextOf(each, "name");
    step.detail = TextOf(each, "detail");
    step.result = TextOf(each, "result");
    step.thread = TextOf(each, "thread");
    step.start_us = NumberOf(each, "start_us");
    step.duration_us = NumberOf(each, "duration_us");
    step.depth = static_cast<uint32_t>(std::clamp<int64_t>(NumberOf(each, "depth"), 0, kDeepest));
    step.failed = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(each, "failed")) != 0;
  }
  return operation;
}

}  // namespace zem::Tarvik
