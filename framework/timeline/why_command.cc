#include "framework/timeline/why_command.h"

#include <algorithm>

#include "framework/timeline/timeline_file.h"
#include "framework/timeline/timeline_json.h"

namespace zem::Tarvik {
namespace {

constexpr size_t kMostTold = 10;
constexpr size_t kMostListed = 1024;

bool IsOf(const timeline::OperationReading& operation, const std::string& key) {
  return key.empty() || std::find(operation.keys.begin(), operation.keys.end(), key) != operation.keys.end();
}

void Why(const TimelineFile& file, const std::string& key, CliReply reply) {
  const size_t most = key.empty() ? kMostListed : kMostTold;
  JsonValue operations = JsonValue::Array();
  size_t told = 0;
  for (const timeline::OperationPtr& each : timeline::Find(key, most)) {
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
