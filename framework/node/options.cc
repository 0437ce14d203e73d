#include "framework/node/options.h"

#include <array>
#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>

#include "framework/log/log.h"
#include "framework/node/platform_info.h"
#include "framework/options/option_table.h"
#include "framework/options/option_value.h"
#include "platform/wft/workflow_util.h"

namespace zem::Tarvik {
namespace {

using boost::property_tree::ptree;

constexpr LogSource kLog{"tarvik", "framework"};

constexpr std::string_view kYes = "true";

constexpr uint32_t kAnyNode = ~0u;
constexpr uint32_t kEdgeNodes = kNodeEdge | kNodePublicCloudGateway;
constexpr uint32_t kBundleGate = 0;  // asks IsKnownNodeForBundle

struct ModeRow {
  Mode mode;
  OptionKey key;
  uint32_t nodes;  // elsewhere the option is false
  const char* setter;
  bool colon;  // the setter's line has one behind the name
};

// In the order of setting, which shows in the log.
constexpr std::array kModes = {
    ModeRow{Mode::kHealthCheck, "app.healthcheck", kAnyNode, "SetHealthCheckMode", true},
    ModeRow{Mode::kCtxtEng, "app.ctxteng", kAnyNode, "SetCtxtEngMode", true},
    ModeRow{Mode::kEdgeIdsEvt, "app.edgeids", kEdgeNodes, "SetEdgeIdsEvtMode", true},
    ModeRow{Mode::kZemda, "app.zemda", kAnyNode & ~kNodeEdge, "SetZemdaMode", true},
    ModeRow{Mode::kSampleClient, "app.sampleClient", kAnyNode, "SetSampleClientMode", true},
    ModeRow{Mode::kTraceflow, "app.traceflow", kAnyNode, "SetTraceflowAppMode", true},
    ModeRow{Mode::kPktCap, "app.pktcap", kAnyNode, "SetPktCapMode", true},
    ModeRow{Mode::kLldp, "app.lldp", kAnyNode, "SetLldpMode", true},
    ModeRow{Mode::kAlarmsProvider, "app.alarmsprovider", kAnyNode, "SetAlarmsProviderMode", true},
    ModeRow{Mode::kSupportBundleClient, "app.supportBundleClient", kBundleGate, "SetSupportBundleClientMode",
            true},
    ModeRow{Mode::kZemaApp, "app.zemaApp", kRealizationNodes, "SetZemaAppMode", true},
    ModeRow{Mode::kEdgesvc, "app.edgesvc", kEdgeNodes, "SetEdgesvcMode", false},
    ModeRow{Mode::kOvsDpdk, "ovs.dpdk", kAnyNode, "SetOvsDpdkMode", false},
    ModeRow{Mode::kOvsDpdkCreateVif, "ovs.dpdk_create_vif", kAnyNode, "SetOvsDpdkCreateVif", false},
    ModeRow{Mode::kLacpBonding, "lacp.allowBalanceTCP", kAnyNode, "SetLacpBonding", false},
    ModeRow{Mode::kLivetrace, "app.livetrace", kAnyNode, "SetLivetraceAppMode", true},
    ModeRow{Mode::kBmsConfigurator, "app.bmsconfigurator", kAnyNode, "SetBMSConfiguratorMode", false},
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
    for (const ModeRow& row : kModes) {
      initial[static_cast<size_t>(row.mode)] = row.key.row().standard == kYes ? 1 : 0;
    }
    return initial;
  }();
  return flags[static_cast<size_t>(mode)];
}

bool Permitted(const ModeRow& row) {
  if (row.nodes == kBundleGate) return IsKnownNodeForBundle();
  return (GetNodeType() & row.nodes) != 0;
}

std::optional<std::string> GivenText(const OptionRow& row) {
  const auto text = OptionsTree().get_optional<std::string>(std::string(row.key));
  return text ? std::optional(*text) : std::nullopt;
}

int Level(OptionKey key) { return static_cast<int>(OptionNumber(key)); }

void ReadLibraryLevel(OptionKey key, Library library) { LibraryLevel(library) = Level(key); }

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

bool OptionFlag(OptionKey key) { return FlagValue(key.row(), GivenText(key.row())); }

int64_t OptionNumber(OptionKey key) { return NumberValue(key.row(), GivenText(key.row())); }

std::string OptionText(OptionKey key) { return TextValue(key.row(), GivenText(key.row())); }

bool OptionSectionGiven(const char* section) { return OptionsTree().get_child_optional(section).has_value(); }

std::string OptionsInForce() {
  return OptionsText(kOptionRows, {}, [](const OptionRow& row) { return GivenText(row); });
}

void ApplyLoggingOptions() {
  SetLogLevel(static_cast<uint32_t>(Level("log.level")));
  ReadLibraryLevel("log.metrics", Library::kMetrics);
  ReadLibraryLevel("log.net", Library::kNet);
  ReadLibraryLevel("log.rpc", Library::kRpc);
  ReadLibraryLevel("log.sha", Library::kSha);
  Logger::SetConsoleCopy(OptionFlag("log.outputToConsole"));
}

void ApplyTracingOptions() {
  wft::WorkflowUtil::SetTraceLevel(Level("tracing.trace_level"));
  ReadLibraryLevel("tracing.log_level", Library::kWorkflow);
}

void ApplyModeOptions() {
  for (const ModeRow& row : kModes) {
    SetMode(row.mode, OptionFlag(row.key) && Permitted(row));
  }
}

void SetMode(Mode mode, bool on) {
  const ModeRow& row = RowOf(mode);
  Flag(mode) = on ? 1 : 0;
  ZLOG_INFO("%s%s %s", row.setter, row.colon ? ":" : "", on ? "true" : "false");
}

void GetMode(Mode mode, uint8_t* on) { *on = Flag(mode); }

}  // namespace zem::Tarvik
