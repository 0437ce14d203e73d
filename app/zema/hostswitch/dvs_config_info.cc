#include "app/zema/hostswitch/dvs_config_info.h"

#include <boost/algorithm/string/join.hpp>
#include <utility>

#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

}  // namespace

bool GetDvsConfigInfo(const std::vector<HostDvs>& switches, const TeamingReader& get_teaming,
                      const LacpNamesReader& get_lacp_names, std::vector<DvsConfigInfo>* infos,
                      std::string* error) {
  bool good = true;
  for (const HostDvs& dvs : switches) {
    DvsConfigInfo info;
    info.id = dvs.id;
    std::vector<std::string> lags;
    Outcome read = get_teaming(dvs.id, &info.team_type, &info.uplinks);
    if (read) read = get_lacp_names(dvs.id, &lags);
    if (!read) {
      *error += (error->empty() ? "" : "; ") + read.error();
      good = false;
      continue;
    }
    // The traffic of a switch with link aggregation groups goes over those groups, not over single uplinks.
    if (!lags.empty()) info.uplinks = std::move(lags);
    ZLOG_INFO("[%s] vdrPort of dvs [%s] uses teamType %u and uplinks [%s]", __func__, dvs.id.c_str(),
              info.team_type, boost::join(info.uplinks, ",").c_str());
    infos->push_back(std::move(info));
  }
  return good;
}

}  // namespace zem::zema
