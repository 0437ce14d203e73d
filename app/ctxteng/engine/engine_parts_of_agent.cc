#include "app/ctxteng/engine/engine_parts_of_agent.h"

#include "app/ctxteng/channel/ctxt_channel.h"
#include "app/ctxteng/engine/ctxt_core.h"
#include "app/ctxteng/firewall/dfw_connector.h"
#include "app/ctxteng/guest/endvat_lib.h"
#include "app/ctxteng/handler/sample_client.h"
#include "app/ctxteng/introspection/ouvi_introspection.h"

namespace Ctxt {
namespace {

class ChannelOfAgent final : public IEngineChannel {
 public:
  explicit ChannelOfAgent(zem::AsioZemProvider& provider) : provider_(provider) {}
  void Initialize() override { CtxtChannel::GetInstance().Initialize(provider_); }
  void Shutdown() override { CtxtChannel::GetInstance().Shutdown(); }

 private:
  zem::AsioZemProvider& provider_;
};

}  // namespace

EngineParts PartsOfAgent(zem::AsioZemProvider& provider) {
  EngineParts parts;
  parts.make_library = &MakeEndvatLib;
  parts.firewall = &DfwUtil::DfwConnector::GetInstance();
  parts.clients.sample = SampleClient::GetInstance();
  parts.introspection = std::make_shared<OuviIntrospection>(nullptr, nullptr);
  parts.channel = std::make_shared<ChannelOfAgent>(provider);
  return parts;
}

}  // namespace Ctxt
