#include "framework/node/options.h"

#include <array>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>

#include "framework/log/log.h"
#include "framework/node/platform_info.h"
#include "platform/wft/workflow_util.h"

namespace zem::Tarvik {
namespace {

using boost::property_tree::ptree;

constexpr LogSource kLog{"tarvik", "framework"};

constexpr uint32_t kAnyNode = ~0u;
constexpr uint32_t kEdgeNodes = kNodeEdge | kNodePublicCloudGateway;
constexpr uint32_t kBundleGate = 0;  // asks IsKnownNodeForBundle

struct ModeRow {
  Mode mode;
  const char* key;
  bool initially;
  uint32_t nodes;  // elsewhere the option is false
  const char* setter;
  bool colon;  // the setter's line has one behind the name
};

// In the order of setting, which shows in the log.
constexpr std::array kModes = {
    ModeRow{Mode::kHealthCheck, "app.healthcheck", true, kAnyNode, "SetHealthCheckMode", true},
    ModeRow{Mode::kCtxtEng, "app.ctxteng", true, kAnyNode, "SetCtxtEngMode", true},
    ModeRow{Mode::kEdgeIdsEvt, "app.edgeids", false, kEdgeNodes, "SetEdgeIdsEvtMode", true},
    ModeRow{Mode::kZemda, "app.zemda", true, kAnyNode & ~kNodeEdge, "SetZemdaMode", true},
    ModeRow{Mode::kSampleClient, "app.sampleClient", false, kAnyNode, "SetSampleClientMode", true},
    ModeRow{Mode::kTraceflow, "app.traceflow", true, kAnyNode, "SetTraceflowAppMode", true},
    ModeRow{Mode::kPktCap, "app.pktcap", true, kAnyNode, "SetPktCapMode", true},
    ModeRow{Mode::kLldp, "app.lldp", true, kAnyNode, "SetLldpMode", true},
    ModeRow{Mode::kAlarmsProvider, "app.alarmsprovider", true, kAnyNode, "SetAlarmsProviderMode", true},
    ModeRow{Mode::kSupportBundleClient, "app.supportBundleClient", true, kBundleGate,
            "SetSupportBundleClientMode", true},
    ModeRow{Mode::kZemaApp, "app.zemaApp", true, kRealizationNodes, "SetZemaAppMode", true},
    ModeRow{Mode::kEdgesvc, "app.edgesvc", true, kEdgeNodes, "SetEdgesvcMode", false},
    ModeRow{Mode::kOvsDpdk, "ovs.dpdk", false, kAnyNode, "SetOvsDpdkMode", false},
    ModeRow{Mode::kOvsDpdkCreateVif, "ovs.dpdk_create_vif", false, kAnyNode, "SetOvsDpdkCreateVif", false},
    ModeRow{Mode::kLacpBonding, "lacp.allowBalanceTCP", false, kAnyNode, "SetLacpBonding", false},
    ModeRow{Mode::kLivetrace, "app.livetrace", true, kAnyNode, "SetLivetraceAppMode", true},
    ModeRow{Mode::kBmsConfigurator, "app.bmsconfigurator", true, kAnyNode, "SetBMSConfiguratorMode", false},
};
constexpr size_t kModeCount = static_cast<size_t>(Mode::kCount);
static_assert(kModes.size() == kModeCount);

const ModeRow& RowOf(Mode mode) {
  for (const ModeRow& row : kModes) {
    if (row.mode == mode) return row;
  }
  __builtin_unreachable();  // every mode has its row
}

uint8_t& Flag(Mode mode) {
  static std::array<uint8_t, kModeCount> flags = [] {
    std::array<uint8_t, kModeCount> initial{};
    for (const ModeRow& row : kModes) initial[static_cast<size_t>(row.mode)] = row.initially;
    return initial;
  }();
  return flags[static_cast<size_t>(mode)];
}

bool Permitted(const ModeRow& row) {
  if (row.nodes == kBundleGate) return IsKnownNodeForBundle();
  return (GetNodeType() & row.nodes) != 0;
}

int ReadNumber(const char* key, int fallback, int maximum) {
  const int value = OptionsTree().get<int>(key, fallback);
  return value >= 0 && value <= maximum ? value : fallback;
}

void ReadLibraryLevel(const char* key, Library library) {
  LibraryLevel(library) = ReadNumber(key, kLogInfo, kLogTrace);
}

}  // namespace

ptree& OptionsTree() {
  static ptree tree;
  return tree;
}

bool LoadOptions(const std::string& path) {
  ZLOG_DEBUG("Try loading config file: %s", path.c_str());
  try {
    ptree whole;
    boost::property_tree::read_xml(
        path, whole,
        boost::property_tree::xml_parser::no_comments | boost::property_tree::xml_parser::trim_whitespace);
    OptionsTree() = whole.get_child("config.tarvik");
    return true;
  } catch (const std::exception& e) {
    ZLOG_ERROR("OPS00001", "Failed loading config file: %s", e.what());
    return false;
  }
}

void ApplyLoggingOptions() {
  SetLogLevel(static_cast<uint32_t>(ReadNumber("log.level", kLogDebug, kLogTrace)));
  ReadLibraryLevel("log.metrics", Library::kMetrics);
  ReadLibraryLevel("log.net", Library::kNet);
  ReadLibraryLevel("log.rpc", Library::kRpc);
  ReadLibraryLevel("log.sha", Library::kSha);
  Logger::SetConsoleCopy(OptionsTree().get<bool>("log.outputToConsole", false));
}

void ApplyTracingOptions() {
  wft::WorkflowUtil::SetTraceLevel(ReadNumber("tracing.trace_level", wft::kTraceInfo, wft::kTraceTrace));
  ReadLibraryLevel("tracing.log_level", Library::kWorkflow);
}

void ApplyModeOptions() {
  for (const ModeRow& row : kModes) {
    const bool wanted = OptionsTree().get<bool>(row.key, Flag(row.mode) != 0);
    SetMode(row.mode, wanted && Permitted(row));
  }
}

void SetMode(Mode mode, bool on) {
  const ModeRow& row = RowOf(mode);
  Flag(mode) = on ? 1 : 0;
  ZLOG_INFO("%s%s %s", row.setter, row.colon ? ":" : "", on ? "true" : "false");
}

void GetMode(Mode mode, uint8_t* on) { *on = Flag(mode); }

}  // namespace zem::Tarvik
