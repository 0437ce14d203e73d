#pragma once

#include <string>
#include <string_view>

namespace zem::ctl {

/// Metrics in the text form of monitoring, as JSON on one line: {"metrics": [{"name", "type", "help",
/// "samples": [{"name", "labels": {NAME: TEXT}, "value"}]}]}, in the order of the text.  A value that is no
/// finite number is null.  Throws Failure for what is not that form, naming the line.
std::string MetricsJson(std::string_view text);

}  // namespace zem::ctl
