#include "app/pktcap/tools/port_lookup.h"

#include <algorithm>
#include <sstream>

#include "framework/log/log.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "pktcap"};

constexpr auto kLookupLimit = std::chrono::seconds(30);
constexpr auto kListLimit = std::chrono::seconds(5);
constexpr const char* kProbe = "orlane-vprobe";
// No key of a port or switch is longer.
constexpr size_t kLongestWord = 128;

// A word becomes an argument of a tool.
bool IsKey(const std::string& word) {
  return word.size() <= kLongestWord &&
         std::all_of(word.begin(), word.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

}  // namespace

bool FindSwitchPortId(const CaptureTools& tools, const std::string& kind, const std::string& value,
                      std::string* switch_port, std::string* switch_id, const std::atomic<bool>* stop) {
  std::string output;
  std::string errors;
  const int result = InvokeCmd({tools.python, tools.find_port, "--" + kind, value}, "", &output, &errors,
                               {.stop = stop, .limit = kLookupLimit});
  if (!errors.empty()) ZLOG_INFO("%s: error %s", __func__, errors.c_str());
  std::istringstream words(output);
  std::string port;
  std::string switch_word;
  words >> port >> switch_word;
  if (result != 0 || port.empty() || !IsKey(port) || !IsKey(switch_word)) {
    ZLOG_INFO("%s: not found switchport and switch id: ret %d", __func__, result);
    return false;
  }
  *switch_port = port;
  if (switch_id == nullptr) {
    ZLOG_INFO("%s: found switchport=%s from %s=%s", __func__, port.c_str(), kind.c_str(), value.c_str());
    return true;
  }
  *switch_id = switch_word;
  ZLOG_INFO("%s: found switchport=%s switch=%s from %s=%s", __func__, port.c_str(), switch_word.c_str(),
            kind.c_str(), value.c_str());
  return true;
}

std::string FindVProbeProcess(const CaptureTools& tools, const std::atomic<bool>* stop) {
  std::string output;
  std::string errors;
  // What the list says counts, not how the tool ends.
  static_cast<void>(InvokeCmd({tools.ps, "-C"}, "", &output, &errors, {.stop = stop, .limit = kListLimit}));
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (line.find(kProbe) == std::string::npos) continue;
    std::string pid;
    std::istringstream(line) >> pid;
    ZLOG_INFO("%s: found vProbe pid=%s", __func__, pid.c_str());
    return pid;
  }
  return {};
}

}  // namespace zem::Tarvik
