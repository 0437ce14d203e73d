#include "app/zema/migration/migration_command.h"

#include <algorithm>
#include <boost/algorithm/string/join.hpp>

#include "app/zema/proxy/lum_reply.h"
#include "app/zema/proxy/switch_record.h"
#include "proto/switching/switching.pb.h"

namespace zem::zema {
namespace {

using namespace orlane::zem::switching;

constexpr std::string_view kMemberSeparators = "|,)";
constexpr std::string_view kFieldSeparators = "|)";
constexpr size_t kFailurePrefix = 13;

bool IsVnic(const std::string& device) { return device.find(':') != std::string::npos; }

// One entry: its key and its members, each of them checked.
class Entry {
 public:
  Entry(const char* key, std::string* error) : text_(std::string("|") + key + "="), error_(error) {}

  void Add(std::string_view field, const std::string& value) {
    good_ = good_ && FreeOfSeparators(field, value, kMemberSeparators, error_);
    text_ += (first_ ? "" : ",") + value;
    first_ = false;
  }
  bool good() const { return good_; }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
  std::string* const error_;
  bool first_ = true;
  bool good_ = true;
};

std::string UplinksOf(const UplinkProfileMsg& profile) {
  std::vector<std::string> names;
  for (const UplinkMsg& uplink : profile.active_uplink()) names.push_back(uplink.name());
  for (const UplinkMsg& uplink : profile.standby_uplink()) names.push_back(uplink.name());
  return boost::join(names, ",");
}

}  // namespace

std::optional<MigrateToPlnParts> BuildMigrateToPln(const HostSwitchMsg* host_switch,
                                                   const KnlMigration& migration, std::string* error) {
  MigrateToPlnParts parts;
  if (host_switch != nullptr) {
    parts.pnics_to_set = UplinksOf(host_switch->profiles().uplink_profile());
    if (!FreeOfSeparators("uplink", parts.pnics_to_set, kFieldSeparators, error)) return std::nullopt;
    Entry pairs("pnicUplinkPairList", error);
    for (const PhysicalNicMsg& pnic : host_switch->pnic()) {
      pairs.Add("physical NIC", pnic.device_name());
      pairs.Add("uplink", pnic.uplink_name());
    }
    if (!pairs.good()) return std::nullopt;
    if (!host_switch->pnic().empty()) parts.options += pairs.text();
  }
  if (!FreeOfSeparators("ping address", migration.ping_ip, kFieldSeparators, error) ||
      !FreeOfSeparators("target", migration.target, kFieldSeparators, error)) {
    return std::nullopt;
  }
  if (!migration.ping_ip.empty()) parts.options += "|mgmtKnlPingIp=" + migration.ping_ip;
  if (!migration.target.empty()) parts.options += "|dvsOrPlnName=" + migration.target;
  for (const QubMgmtIfToPlnMsg* move : migration.to_pln) {
    // A move of physical NICs alone needs no entry: the NICs that move are those missing from the ones to
    // keep.
    if (move->device().empty()) continue;
    Entry entry(IsVnic(move->device()) ? "vmuuiddevicepair" : "knlToVswOrPsw", error);
    entry.Add("device", move->device());
    entry.Add("port group", move->port_group());
    if (move->has_previous_logical_port_id()) entry.Add("previous port", move->previous_logical_port_id());
    if (move->has_previous_vif_id()) entry.Add("previous VIF", move->previous_vif_id());
    if (!entry.good()) return std::nullopt;
    parts.entries += entry.text();
  }
  return parts;
}

std::string MigrateToPlnParts::Command(const std::string& switch_id, const std::string& op_id,
                                       int ping_tries) const {
  return "migrateToPLN(dvsUuid=" + switch_id + "|opId=" + op_id + "|pnicsToSetInDvs=" + pnics_to_set +
         "|knlPingTryTimes=" + std::to_string(ping_tries) + options + entries + ")";
}

std::optional<MigrateToLsParts> BuildMigrateToLs(const KnlMigration& migration,
                                                 const std::vector<std::string>& pairs, std::string* error) {
  MigrateToLsParts parts;
  parts.pnics = boost::join(pairs, ",");
  std::replace(parts.pnics.begin(), parts.pnics.end(), '~', ',');
  parts.ping_ip = migration.ping_ip;
  if (!FreeOfSeparators("physical NICs", parts.pnics, kFieldSeparators, error) ||
      !FreeOfSeparators("ping address", parts.ping_ip, kFieldSeparators, error)) {
    return std::nullopt;
  }
  for (const QubMgmtIfToLogicSwitchMsg* move : migration.to_logical_switch) {
    if (IsPnicsAlone(*move)) continue;
    const bool vnic = IsVnic(move->device());
    Entry entry(vnic ? "vmuuiddevicepair" : "knlToLs", error);
    entry.Add("device", move->device());
    if (vnic) {
      entry.Add("VIF", move->vif_id());
      entry.Add("logical switch", move->lswitch_id());
      entry.Add("logical port", move->logical_port_id());
    } else if (move->is_vtep()) {
      entry.Add("logical switch", move->lswitch_id());
      entry.Add("label", move->has_label() ? std::to_string(move->label()) : "");
      entry.Add("marker", "is_vtep");
    } else {
      entry.Add("VIF", move->vif_id());
      entry.Add("logical switch", move->lswitch_id());
      if (move->has_port_group()) entry.Add("port group", move->port_group());
      entry.Add("marker", "not_vtep");
    }
    // The entry ends with a comma, after which the number may follow.
    entry.Add("tail number", move->has_tail_number() ? std::to_string(move->tail_number()) : "");
    if (!entry.good()) return std::nullopt;
    parts.entries += entry.text();
  }
  return parts;
}

std::string MigrateToLsParts::Command(const std::string& switch_id, const std::string& op_id,
                                      int ping_tries) const {
  std::string command = "migrateToLS(dvsUuid=" + switch_id + "|opId=" + op_id +
                        "|pnicUplinkPairList=" + pnics + "|knlPingTryTimes=" + std::to_string(ping_tries);
  if (!ping_ip.empty()) command += "|mgmtKnlPingIp=" + ping_ip;
  return command + entries + ")";
}

MigrateToLsFailure ParseMigrateToLsFailure(std::string_view reply) {
  const size_t bar = reply.find('|', std::min(kFailurePrefix, reply.size()));
  if (bar == std::string_view::npos) return {{}, std::string(reply)};
  MigrateToLsFailure failure{{}, std::string(reply.substr(bar + 1))};
  for (const std::string_view device : SplitTokens(reply.substr(kFailurePrefix, bar - kFailurePrefix), ',')) {
    if (!device.empty()) failure.vteps.emplace_back(device);
  }
  return failure;
}

}  // namespace zem::zema
