#include "app/ctxteng/engine/engine_parts_of_agent.h"

#include "app/ctxteng/engine/ctxt_core.h"
#include "app/ctxteng/firewall/dfw_connector.h"
#include "app/ctxteng/guest/endvat_lib.h"
#include "app/ctxteng/handler/sample_client.h"
#include "app/ctxteng/introspection/ouvi_introspection.h"

namespace Ctxt {

EngineParts PartsOfAgent(zem::AsioZemProvider&) {
  EngineParts parts;
  parts.make_library = &MakeEndvatLib;
  parts.firewall = &DfwUtil::DfwConnector::GetInstance();
  parts.clients.sample = SampleClient::GetInstance();
  parts.introspection = std::make_shared<OuviIntrospection>(nullptr, nullptr);
  return parts;
}

}  // namespace Ctxt
