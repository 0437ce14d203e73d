#pragma once

#include <boost/property_tree/ptree_fwd.hpp>
#include <cstdint>
#include <string>

#include "framework/options/option_table.h"

/// The daemon's options: one XML file, read once by the main thread before others start.
namespace zem::Tarvik {

inline constexpr const char* kOptionsPath = "/etc/orlane/zem-tarvik/zem-tarvik.xml";

/// The tree that LoadOptions has filled, for tests: code reads options by the functions below.
boost::property_tree::ptree& OptionsTree();

/// The value in force of an option: the file's where it has a good one, otherwise the table's default.  By
/// the main thread, or after the start from any.
bool OptionFlag(OptionKey key);
int64_t OptionNumber(OptionKey key);
std::string OptionText(OptionKey key);
/// Whether the file has this section, empty or not.
bool OptionSectionGiven(const char* section);

/// Every option with the value in force: "get/options" of the command socket.
std::string OptionsInForce();

/// Reads the children of `config.tarvik`.  False, with an error line, when the file is unreadable, not XML or
/// without them; the tree is then as it was.
[[nodiscard]] bool LoadOptions(const std::string& path);

/// `log.*`: the levels and the copy to the console.  A value that is not a level gives the default.
void ApplyLoggingOptions();

/// `tracing.*`: levels of the workflow tracing.
void ApplyTracingOptions();

/// `app.*`, `ovs.*`, `lacp.*`: reads each option, gates it by the node type, and stores it by the setters
/// below.
void ApplyModeOptions();

enum class Mode {
  kSampleClient,
  kTraceflow,
  kPktCap,
  kLldp,
  kAlarmsProvider,
  kLivetrace,
  kHealthCheck,
  kCtxtEng,
  kEdgeIdsEvt,
  kZemda,
  kSupportBundleClient,
  kZemaApp,
  kOvsDpdk,
  kOvsDpdkCreateVif,
  kLacpBonding,
  kBmsConfigurator,
  kEdgesvc,
  kCount,
};

/// Stores and logs.  By the main thread, before others start.
void SetMode(Mode mode, bool on);
void GetMode(Mode mode, uint8_t* on);

inline void SetSampleClientMode(bool on) { SetMode(Mode::kSampleClient, on); }
inline void SetTraceflowAppMode(bool on) { SetMode(Mode::kTraceflow, on); }
inline void SetCtxtEngMode(bool on) { SetMode(Mode::kCtxtEng, on); }
inline void SetPktCapMode(bool on) { SetMode(Mode::kPktCap, on); }
inline void SetLldpMode(bool on) { SetMode(Mode::kLldp, on); }
inline void SetHealthCheckMode(bool on) { SetMode(Mode::kHealthCheck, on); }
inline void SetSupportBundleClientMode(bool on) { SetMode(Mode::kSupportBundleClient, on); }
inline void SetZemaAppMode(bool on) { SetMode(Mode::kZemaApp, on); }
inline void SetZemdaMode(bool on) { SetMode(Mode::kZemda, on); }
inline void SetAlarmsProviderMode(bool on) { SetMode(Mode::kAlarmsProvider, on); }
inline void SetLivetraceAppMode(bool on) { SetMode(Mode::kLivetrace, on); }
inline void SetEdgeIdsEvtMode(bool on) { SetMode(Mode::kEdgeIdsEvt, on); }
inline void SetEdgesvcMode(bool on) { SetMode(Mode::kEdgesvc, on); }
inline void SetOvsDpdkMode(bool on) { SetMode(Mode::kOvsDpdk, on); }
inline void SetBMSConfiguratorMode(bool on) { SetMode(Mode::kBmsConfigurator, on); }
inline void SetOvsDpdkCreateVif(bool on) { SetMode(Mode::kOvsDpdkCreateVif, on); }
inline void SetLacpBonding(bool on) { SetMode(Mode::kLacpBonding, on); }

inline void GetSampleClientMode(uint8_t* on) { GetMode(Mode::kSampleClient, on); }
inline void GetTraceflowAppMode(uint8_t* on) { GetMode(Mode::kTraceflow, on); }
inline void GetCtxtEngMode(uint8_t* on) { GetMode(Mode::kCtxtEng, on); }
inline void GetPktCapMode(uint8_t* on) { GetMode(Mode::kPktCap, on); }
inline void GetLldpMode(uint8_t* on) { GetMode(Mode::kLldp, on); }
inline void GetHealthCheckMode(uint8_t* on) { GetMode(Mode::kHealthCheck, on); }
inline void GetSupportBundleClientMode(uint8_t* on) { GetMode(Mode::kSupportBundleClient, on); }
inline void GetZemaAppMode(uint8_t* on) { GetMode(Mode::kZemaApp, on); }
inline void GetZemdaMode(uint8_t* on) { GetMode(Mode::kZemda, on); }
inline void GetAlarmsProviderMode(uint8_t* on) { GetMode(Mode::kAlarmsProvider, on); }
inline void GetLivetraceAppMode(uint8_t* on) { GetMode(Mode::kLivetrace, on); }
inline void GetEdgeIdsEvtMode(uint8_t* on) { GetMode(Mode::kEdgeIdsEvt, on); }
inline void GetEdgesvcMode(uint8_t* on) { GetMode(Mode::kEdgesvc, on); }
inline void GetOvsDpdkMode(uint8_t* on) { GetMode(Mode::kOvsDpdk, on); }
inline void GetBMSConfiguratorMode(uint8_t* on) { GetMode(Mode::kBmsConfigurator, on); }
inline void GetOvsDpdkCreateVif(uint8_t* on) { GetMode(Mode::kOvsDpdkCreateVif, on); }
inline void GetLacpBonding(uint8_t* on) { GetMode(Mode::kLacpBonding, on); }

}  // namespace zem::Tarvik
