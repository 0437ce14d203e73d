#include "framework/timeline/why_command.h"

#include <algorithm>
#include <charconv>

#include "framework/timeline/timeline_file.h"
#include "framework/timeline/timeline_json.h"

namespace zem::Tarvik {
namespace {

constexpr size_t kMostTold = 10;
constexpr size_t kMostListed = 1024;

// What "#N" names; 0 for any other key.
uint64_t NumberOf(const std::string& key) {
  uint64_t number = 0;
  if (key.empty() || key[0] != '#') return 0;
  std::from_chars(key.data() + 1, key.data() + key.size(), number);
  return number;
}

bool IsOf(const timeline::OperationReading& operation, const std::string& key) {
  if (const uint64_t number = NumberOf(key); number != 0) return operation.number == number;
  return key.empty() || std::find(operation.keys.begin(), operation.keys.end(), key) != operation.keys.end();
}

void Why(const TimelineFile& file, const std::string& key, CliReply reply) {
  const size_t most = key.empty() ? kMostListed : kMostTold;
  JsonValue operations = JsonValue::Array();
  size_t told = 0;
  const uint64_t number = NumberOf(key);
  for (const timeline::OperationPtr& each :
       number != 0 ? timeline::Find({}, kMostListed) : timeline::Find(key, most)) {
    if (number != 0 && each->number() != number) continue;
    operations.Append(TimelineJson(each->Read(), !key.empty()));
    ++told;
  }
  for (const timeline::OperationReading& each : file.earlier()) {
    if (told == most) break;
    if (!IsOf(each, key)) continue;
    operations.Append(TimelineJson(each, !key.empty()));
    ++told;
  }
  if (told == 0 && !key.empty()) return reply.Error("no operation is known by \"" + key + "\"");
  JsonValue answer = JsonValue::Object();
  answer.Add("id", key).Add("operations", std::move(operations));
  reply.Ok(answer.Text());
}

}  // namespace

CliCommand WhyCommand(const TimelineFile& file) {
  return {"get/why", "[ID]", 0, 1, [&file](const CliArguments& arguments, CliReply reply) {
            Why(file, arguments.empty() ? std::string() : arguments[0], std::move(reply));
          }};
}

}  // namespace zem::Tarvik
