#include "bench/kill/sweep/sweep_services.h"

namespace zem::bench {
namespace {

using sim::Json;
using sim::NumberAt;
using sim::TextAt;

constexpr int kAtManager = 3;

}  // namespace

// A manager that hears nothing of its bundle asks for it again.
void SweepServices::AskForBundle() {
  const Json target = run_.node().Do("uploads state");
  const std::string id = Quoted("sweep-" + std::to_string(run_.NextNumber()));
  const std::string request =
      "manager send --timeout 20 SupportBundle BundleGenerationRequestMsg 'generate_id: " + id +
      " content_selector: 3 manager_info { server: \"127.0.0.1\" port: " +
      std::to_string(static_cast<int>(NumberAt(target.get(), "port"))) +
      " thumbprint: " + Quoted(TextAt(target.get(), "thumbprint")) + " }'";
  const std::string status =
      "manager send --timeout 20 SupportBundle BundleStatusRequestMsg 'generate_id: " + id + "'";
  const auto sent = [](const cJSON* answer) { return NumberAt(answer, "answer.status") == kAtManager; };
  run_.Begin(
      [request, status, sent](Background::Node& node) {
        const std::string reason = node.Try(request);
        return reason.empty() ? node.Until(status, sent) : reason;
      },
      [this, request, status, sent](const std::string& reason) {
        if (reason.empty()) return;
        run_.Insist(request);
        run_.node().Await(status, SweepRun::kPatience, sent);
      });
}

void SweepServices::AskForNeighbours() {
  run_.Run("manager send --timeout 20 LldpVertical LldpInterfacesRequestMsg 'interface: \"vmnic0\"'");
}

std::string SweepServices::Disagreement() {
  if (const Json left = run_.node().Do("bundle left"); cJSON_GetArraySize(left.get()) != 0)
    return "bundles are left: " + Lines(left.get());
  const Json processes = run_.node().Do("lldp processes");
  if (const int count = cJSON_GetArraySize(processes.get()); count != 1)
    return std::to_string(count) + " processes of the host's management API";
  return {};
}

}  // namespace zem::bench
