#include "app/ctxteng/engine/ids_of_agent.h"

#include <optional>
#include <string>

#include "app/ctxteng/channel/ctxt_channel.h"
#include "app/ctxteng/engine/ctxt_core.h"
#include "app/ctxteng/firewall/dfw_connector.h"
#include "app/ctxteng/ids/ids.h"
#include "app/ctxteng/idsevents/ids_counters.h"
#include "app/ctxteng/idsevents/ids_evt_engine.h"
#include "mpaclient/proxy/tn_proxy_client_common.h"

namespace Ctxt {
namespace {

std::optional<std::string> UserName(uint32_t user_hash) {
  const auto user = CtxtCore::GetInstance().users().FindUserByHash(user_hash);
  if (user == nullptr) return std::nullopt;
  return user->user_name;
}

std::unique_ptr<IdsEvtEng::IdsEvtEngine> MakeEngine(const IdsParam& param,
                                                    IdsEvtEng::IIdsServices& services) {
  // Whoever waits for the context engine waits for all of its clients, not for this one alone.
  return std::make_unique<IdsEvtEng::IdsEvtEngine>(
      param, IdsEvtEng::EngineSurroundings{services, CtxtChannel::GetInstance(),
                                           IdsEvtEng::IdsCounters::Process(), &UserName, [] {}});
}

bool TransportNode(std::string* text) {
  const auto proxy = zem::TnProxyClientCommon::getInstance();
  if (proxy == nullptr) return false;
  *text = proxy->getTnUuidStr();
  return true;
}

}  // namespace

const std::shared_ptr<Ids>& IdsOfAgent() {
  // Never destroyed: Kafka's threads and the library's may be in it while the process ends.
  static const auto& ids = *new auto(std::make_shared<Ids>(IdsSurroundings{
      CtxtCore::GetInstance().guests(), IdsEvtEng::IdsCounters::Process().deliveries, &MakeEngine,
      &TransportNode, [] { return DfwUtil::DfwConnector::GetInstance().IsBypassChanged(); },
      [] { return DfwUtil::DfwConnector::GetInstance().IsDropChanged(); }}));
  return ids;
}

}  // namespace Ctxt
