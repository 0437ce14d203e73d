#include "app/zema/ports/vif_holders.h"

#include <algorithm>

#include "app/zema/hostlib/port_props.h"
#include "app/zema/hostlib/port_walk.h"
#include "app/zema/hostlib/switch_library.h"
#include "app/zema/ports/port_properties.h"
#include "app/zema/ports/transport_zones.h"
#include "app/zema/ports/vif_index.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

}  // namespace

// The index says where a VIF is without reading all ports.  Where it has no answer, an outdated one, or more
// than one, a walk over all ports decides.

bool VifHolders::ReadVifs(const std::string* vif, std::vector<PortLocation>* holders) {
  VifIndex::Reading reading(index_);
  bool complete = true;
  std::string stored;
  PortWalk walk(library_, zones_.Switches());
  walk.Visit([&](const std::string& dvs, const std::string& port) {
    const uint32_t result = library_.PortTextGet(dvs, port, port_props::kExternalId, &stored);
    if (result == 0) {
      reading.Found(dvs, port, stored);
      if (vif != nullptr && stored == *vif) holders->push_back({dvs, port});
    } else if (result != kSwitchNotFound) {
      ZLOG_ERROR("44207", "[PortOp] Failed to get property [%s] of port [%s], error code [%s]",
                 port_props::kExternalId, port.c_str(), SwitchErrorText(result).c_str());
      complete = false;
    }
    return false;
  });
  complete = complete && walk.failed() == 0;
  if (complete) reading.Install();
  return complete;
}

std::vector<PortLocation> VifHolders::WalkForVif(const std::string& vif) {
  std::vector<PortLocation> holders;
  if (ReadVifs(&vif, &holders) && holders.empty()) index_.SetNowhere(vif);
  return holders;
}

// Tests whether the answer of the index needs no confirmation by a walk: it found the VIF's ports, as in the
// second half of a move, or the VIF is known to be on none.
bool VifHolders::KnowsAll(const std::optional<std::vector<PortLocation>>& holders,
                          const std::string& vif) const {
  return holders && (!holders->empty() || index_.IsNowhere(vif));
}

bool VifHolders::RefreshVifIndex() {
  if (ReadVifs(nullptr, nullptr)) return true;
  index_.Invalidate();
  return false;
}

void VifHolders::ForgetVifIndex() { index_.Invalidate(); }

void VifHolders::DoubtVif(const std::string& vif) { index_.Doubt(vif); }

std::optional<std::vector<PortLocation>> VifHolders::AskIndex(const std::string& vif,
                                                              const std::string& except) {
  auto candidates = index_.Lookup(vif);
  if (!candidates) return std::nullopt;
  std::vector<PortLocation> holders;
  if (candidates->empty()) return holders;
  const std::vector<std::string> switches = zones_.Switches();
  for (PortLocation& at : *candidates) {
    // The walk would not visit a switch without a zone either.
    if (at.port == except || !std::binary_search(switches.begin(), switches.end(), at.dvs)) continue;
    if (properties_.Compare(at, port_props::kExternalId, vif) != PortProperties::Same::kYes) {
      ZLOG_DEBUG("[PortOp] VIF [%s] is not on port [%s] as expected", vif.c_str(), at.port.c_str());
      return std::nullopt;
    }
    holders.push_back(std::move(at));
  }
  return holders;
}

std::vector<PortLocation> VifHolders::OfNetwork(const std::vector<PortLocation>& holders,
                                                const std::string& ls, const char* then) const {
  std::vector<PortLocation> matching;
  for (const PortLocation& at : holders) {
    if (properties_.Compare(at, port_props::kOpaqueNetworkId, ls) != PortProperties::Same::kYes) continue;
    ZLOG_INFO("[PortOp] Port [%s] on switch [%s] matched.%s", at.port.c_str(), at.dvs.c_str(), then);
    matching.push_back(at);
  }
  return matching;
}

std::optional<PortLocation> VifHolders::OnNetwork(const std::string& vif, const std::string& ls) {
  if (const auto holders = AskIndex(vif, {}); KnowsAll(holders, vif)) {
    auto matching = OfNetwork(*holders, ls, "");
    if (matching.size() == 1) return std::move(matching.front());
    if (matching.empty()) return std::nullopt;
  }
  // Of several ports, the first in the order of the walk is the one.
  auto matching = OfNetwork(WalkForVif(vif), ls, "");
  if (matching.empty()) return std::nullopt;
  return std::move(matching.front());
}

std::vector<PortLocation> VifHolders::AllToClear(const std::string& vif, const std::string& ls) {
  auto holders = AskIndex(vif, {});
  if (!KnowsAll(holders, vif)) holders = WalkForVif(vif);
  return OfNetwork(*holders, ls, " Clearing port.");
}

// Every attach comes through here, so the index is believed when it knows no other port.
std::vector<PortLocation> VifHolders::OtherThan(const std::string& port, const std::string& vif) {
  auto holders = AskIndex(vif, port);
  if (!holders) holders = WalkForVif(vif);
  std::erase_if(*holders, [&](const PortLocation& at) { return at.port == port; });
  return *std::move(holders);
}

}  // namespace zem::zema
