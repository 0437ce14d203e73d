#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "app/zema/hostlib/switch_library.h"
#include "platform/metrics/process_metrics.h"
#include "platform/timeline/step.h"

namespace zem::zema {

/// A call of one of the host's libraries as a step of the operation: which function, on what, with which
/// result.  A name that is not found is an answer, not a failure.
class LibraryStep {
 public:
  /// `function` has to live forever.
  explicit LibraryStep(std::string_view function, std::string_view on, std::string_view port = {},
                       std::string_view property = {})
      : figures_(FiguresOf(function)), begun_(Clock::Process().Now()), step_(function, begun_) {
    if (!step_.recorded()) return;
    char text[192];
    size_t length = 0;
    for (const std::string_view part : {on, port, property}) {
      if (part.empty()) continue;
      if (length != 0 && length < sizeof(text)) text[length++] = ' ';
      const size_t taken = std::min(part.size(), sizeof(text) - length);
      std::memcpy(text + length, part.data(), taken);
      length += taken;
    }
    step_.Detail({}, {text, length});
  }

  /// Takes the library's result and returns it.
  uint32_t operator()(uint32_t code) {
    // One reading of the clock for both.
    const TimePoint now = Clock::Process().Now();
    figures_.latency.Record(now - begun_);
    if (code != 0 && code != kSwitchNotFound) figures_.errors.Add();
    if (code == 0 || !step_.recorded()) {
      step_.ResultCode(code);
    } else {
      step_.Result(SwitchErrorText(code), code != kSwitchNotFound);
    }
    step_.End(now);
    return code;
  }

 private:
  struct Figures {
    explicit Figures(const char* library)
        : latency(metrics::LatencyOf(metrics::MetricId::kLibrary, library)),
          errors(metrics::CounterOf(metrics::MetricId::kLibraryErrors, library)) {}
    metrics::Latency& latency;
    metrics::Counter& errors;
  };
  static const Figures& FiguresOf(std::string_view function) {
    static const Figures router("router");
    static const Figures endpoint("endpoint");
    static const Figures others("switch");
    if (function.starts_with("VDRKNL")) return router;
    return function.starts_with("VDL2KNL") ? endpoint : others;
  }

  const Figures& figures_;
  const TimePoint begun_;
  timeline::Step step_;
};

}  // namespace zem::zema
