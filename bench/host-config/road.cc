#include "bench/host-config/road.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <stdexcept>

#include "sim/scenario/node_process.h"

namespace zem::bench {
namespace {

constexpr double kMicro = 1e-6;

using sim::NumberAt;

// The script works from the arrival of a request until it waits for the next one.  What it writes after an
// answer is its own time, not that of the next request.
std::vector<Span> ProxySpans(const cJSON* frames, double end) {
  std::vector<Span> spans;
  const int count = cJSON_GetArraySize(frames);
  for (int i = 0; i < count; ++i) {
    const cJSON* const frame = cJSON_GetArrayItem(frames, i);
    const double until = i + 1 < count ? NumberAt(cJSON_GetArrayItem(frames, i + 1), "waited") : end;
    spans.push_back({NumberAt(frame, "in"), until});
  }
  // After the last answer of the road, the agent works on whatever the script does.
  for (size_t i = spans.size(); i-- > 0;) {
    if (spans[i].begin > end) continue;
    spans[i].end = NumberAt(cJSON_GetArrayItem(frames, static_cast<int>(i)), "out");
    break;
  }
  return spans;
}

std::vector<Span> LibrarySpans(const cJSON* calls) {
  std::vector<Span> spans;
  const cJSON* call = nullptr;
  cJSON_ArrayForEach(call, calls) spans.push_back({NumberAt(call, "start"), NumberAt(call, "end")});
  return spans;
}

int Within(const std::vector<Span>& spans, double begin, double end) {
  return static_cast<int>(std::count_if(spans.begin(), spans.end(), [=](const Span& span) {
    return span.begin >= begin && span.begin <= end;
  }));
}

}  // namespace

double Covered(std::vector<Span> spans, double begin, double end) {
  std::sort(spans.begin(), spans.end(), [](const Span& a, const Span& b) { return a.begin < b.begin; });
  double covered = 0;
  double reached = begin;
  for (const Span& span : spans) {
    const double from = std::max(span.begin, reached);
    const double to = std::min(span.end, end);
    if (to <= from) continue;
    covered += to - from;
    reached = to;
  }
  return covered;
}

Road Measure(sim::NodeProcess& node, const std::string& message) {
  const sim::Json answer =
      node.Do("manager send --timeout 60 SwitchingVertical HostConfigMsg '" + message + "'");
  const std::string text = sim::TextAt(answer.get(), "answer.host_config.error_text");
  if (NumberAt(answer.get(), "answer.host_config.error_code") != 0 ||
      sim::At(answer.get(), "answer.host_config.error_code") == nullptr) {
    throw std::runtime_error("the configuration was not applied: " + text);
  }
  const double begin = NumberAt(answer.get(), "sent_at_us") * kMicro;
  const double end = begin + NumberAt(answer.get(), "took_us") * kMicro;
  const sim::Json frames = node.Do("host frames 100");
  const sim::Json calls = node.Do("switch/calls");
  std::vector<Span> proxy = ProxySpans(frames.get(), end);
  const std::vector<Span> libraries = LibrarySpans(calls.get());
  Road road;
  road.total = end - begin;
  road.proxy = Covered(proxy, begin, end);
  road.libraries = Covered(libraries, begin, end);
  road.commands = Within(proxy, begin, end);
  road.calls = Within(libraries, begin, end);
  proxy.insert(proxy.end(), libraries.begin(), libraries.end());
  road.own = road.total - Covered(std::move(proxy), begin, end);
  return road;
}

}  // namespace zem::bench
