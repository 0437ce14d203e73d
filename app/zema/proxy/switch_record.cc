#include "app/zema/proxy/switch_record.h"

#include <boost/algorithm/string/join.hpp>

#include "framework/log/log.h"
#include "proto/switching/host_switch.pb.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

using namespace orlane::zem::switching;

constexpr LogSource kLog{"tarvik", "zema"};

constexpr uint32_t kTypeKln = 2;
// Separators of the whole command, of a list in it, and of the members of an item.
constexpr std::string_view kFieldSeparators = "|;";
constexpr std::string_view kListSeparators = "|;,";
constexpr std::string_view kItemSeparators = "|;,~";
constexpr std::string_view kPairSeparators = "|;,=";

// Indexed by the number in the message.  The host has no name for the last policy, which balances by most of
// the header.
constexpr std::string_view kLoadBalance[] = {"destMac", "srcMac", "srcDestIpVlan", "srcDestMac",
                                             "srcDestIpVlan"};

std::string Flag(bool value) { return value ? "1" : "0"; }

// Collects texts and refuses the first that contains a separator of the record.
class Checked {
 public:
  explicit Checked(std::string* error) : error_(error) {}
  const std::string& operator()(std::string_view field, const std::string& value,
                                std::string_view separators) {
    if (good_) good_ = FreeOfSeparators(field, value, separators, error_);
    return value;
  }
  bool good() const { return good_; }

 private:
  std::string* const error_;
  bool good_ = true;
};

template <typename Texts>
std::string List(std::string_view field, const Texts& texts, Checked* checked) {
  std::vector<std::string> list;
  for (const std::string& text : texts) list.push_back((*checked)(field, text, kListSeparators));
  return boost::join(list, ",");
}

std::string UplinksInUse(const UplinkProfileMsg& profile, Checked* checked) {
  std::vector<std::string> uplinks;
  for (const UplinkMsg& uplink : profile.active_uplink()) {
    uplinks.push_back((*checked)("active uplink", uplink.name(), kListSeparators));
  }
  for (const UplinkMsg& uplink : profile.standby_uplink()) {
    uplinks.push_back((*checked)("standby uplink", uplink.name(), kListSeparators));
  }
  std::string joined = boost::join(uplinks, ",");
  ZLOG_INFO("uplinks in use by ZEM: %s", joined.c_str());
  return joined;
}

std::string Lags(const UplinkProfileMsg& profile, Checked* checked) {
  std::vector<std::string> lags;
  for (const LagConfigMsg& lag : profile.lag()) {
    std::string text = (*checked)("LAG name", lag.name(), kPairSeparators);
    text += "," + std::to_string(lag.uplink_count());
    text += lag.mode() == LagConfigMsg::ACTIVE ? ",active," : ",passive,";
    text += kLoadBalance[lag.load_balance_algo()];
    text += lag.timeout_type() == LagConfigMsg::FAST ? ",fast," : ",slow,";
    text += std::to_string(lag.number());
    lags.push_back(std::move(text));
  }
  return boost::join(lags, "=");
}

std::string ExtraConfigs(const ExtraConfigsProfileMsg& profile, Checked* checked) {
  if (profile.config_pair().empty()) return "none";
  std::vector<std::string> pairs;
  for (const ConfigPairMsg& pair : profile.config_pair()) {
    pairs.push_back((*checked)("extra config key", pair.key(), kPairSeparators) + "=" +
                    (*checked)("extra config value", pair.value(), kListSeparators));
  }
  return boost::join(pairs, ",");
}

}  // namespace

bool FreeOfSeparators(std::string_view field, std::string_view value, std::string_view separators,
                      std::string* error) {
  const size_t at = value.find_first_of(separators);
  if (at == std::string_view::npos) return true;
  *error = std::string(field) + " [" + std::string(value) + "] must not contain '" + value[at] + "'";
  return false;
}

std::string_view SwitchKind(const HostSwitchMsg& host_switch) {
  return host_switch.has_type() && host_switch.type() == kTypeKln ? "KLN" : "NVS";
}

std::optional<std::string> BuildSwitchRecord(const HostSwitchMsg& host_switch, MigratedPnics* migrated,
                                             std::string* error) {
  Checked checked(error);
  std::vector<std::string> pnics;
  for (const PhysicalNicMsg& pnic : host_switch.pnic()) {
    pnics.push_back(checked("physical NIC", pnic.device_name(), kItemSeparators) + "~" +
                    checked("uplink", pnic.uplink_name(), kItemSeparators));
  }
  const auto migration = migrated->find(host_switch.id());
  const bool migrates = migration != migrated->end();
  const UplinkProfileMsg& uplinks = host_switch.profiles().uplink_profile();
  const std::string fields[] = {
      checked("switch id", host_switch.id(), kFieldSeparators),
      checked("switch name", host_switch.name(), kFieldSeparators),
      std::to_string(host_switch.mtu()),
      std::string(SwitchKind(host_switch)),
      List("transport zone", host_switch.transport_zone_id(), &checked),
      List("transport zone profile", host_switch.transport_zone_profile_id(), &checked),
      migrates ? std::string() : boost::join(pnics, ","),
      UplinksInUse(uplinks, &checked),
      Flag(host_switch.overlay()),
      Lags(uplinks, &checked),
      ExtraConfigs(host_switch.profiles().extra_configs_profile(), &checked),
      Flag(host_switch.vif_collection_status() != 0),
      Flag(host_switch.snic_offload()),
  };
  if (!checked.good()) return std::nullopt;
  if (migrates) migration->second.insert(migration->second.end(), pnics.begin(), pnics.end());
  return boost::join(fields, "|");
}

std::optional<std::vector<std::string>> BuildSwitchRecords(const HostConfigMsg& config,
                                                           MigratedPnics* migrated, std::string* error) {
  std::vector<std::string> records;
  if (config.has_phase() && config.phase() == HostConfigMsg::PHASE1_PARTIAL) return records;
  for (const HostSwitchMsg& host_switch : config.host_switches()) {
    std::optional<std::string> record = BuildSwitchRecord(host_switch, migrated, error);
    if (!record) return std::nullopt;
    records.push_back(std::move(*record));
  }
  return records;
}

std::string ApplyDvsesCommand(const std::vector<std::string>& records) {
  return "applyDvses(" + boost::join(records, ";") + ")";
}

std::vector<TzDvs> TzToDvsOf(const HostConfigMsg& config) {
  std::vector<TzDvs> mapping;
  for (const HostSwitchMsg& host_switch : config.host_switches()) {
    for (const std::string& zone : host_switch.transport_zone_id()) {
      mapping.push_back({zone, host_switch.id(), std::string(SwitchKind(host_switch))});
    }
  }
  return mapping;
}

}  // namespace zem::zema
