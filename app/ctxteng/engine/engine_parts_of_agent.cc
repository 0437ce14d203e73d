#include "app/ctxteng/engine/engine_parts_of_agent.h"

#include <exception>
#include <utility>

#include "app/ctxteng/alarm/ouvi_alarm.h"
#include "app/ctxteng/channel/ctxt_channel.h"
#include "app/ctxteng/engine/ctxt_core.h"
#include "app/ctxteng/engine/ids_of_agent.h"
#include "app/ctxteng/firewall/dfw_connector.h"
#include "app/ctxteng/flow/pace.h"
#include "app/ctxteng/guest/endvat_lib.h"
#include "app/ctxteng/guest/endvat_util.h"
#include "app/ctxteng/handler/sample_client.h"
#include "app/ctxteng/health/ctxt_health.h"
#include "app/ctxteng/idfw/idfw.h"
#include "app/ctxteng/ids/ids.h"
#include "app/ctxteng/idsevents/ids_counters.h"
#include "app/ctxteng/introspection/ouvi_introspection.h"
#include "app/ctxteng/introspection/surroundings.h"
#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

class ChannelOfAgent final : public IEngineChannel {
 public:
  explicit ChannelOfAgent(zem::AsioZemProvider& provider) : provider_(provider) {}
  void Initialize() override { CtxtChannel::GetInstance().Initialize(provider_); }
  void Shutdown() override { CtxtChannel::GetInstance().Shutdown(); }

 private:
  zem::AsioZemProvider& provider_;
};

CtxtHealth::Guests RunningGuests() {
  CtxtHealth::Guests guests;
  for (const GuestTable::Record& guest : CtxtCore::GetInstance().guests().All()) {
    guests.emplace(guest->vc_uuid, guest);
  }
  return guests;
}

// A report is sent from threads of the configuration as well, which must not end by an exception.
int SendToManager(const std::shared_ptr<CtxtMsg>& message, bool is_request) {
  try {
    return CtxtChannel::GetInstance().SendMsg(*message, is_request);
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(301, "CtxtHealth: the report was not sent: %s", error.what());
    return -1;
  }
}

class HealthOfAgent final : public IContextHealth {
 public:
  void Initialize() override {
    CtxtHealth::GetInstance().Initialize(
        {.register_client =
             [](const std::string& app_id, const std::string& app_type, CtxtHealth::Callback callback) {
               CtxtChannel::GetInstance().RegisterClient(app_id, app_type, std::move(callback));
             },
         .send = &SendToManager,
         .guests = &RunningGuests,
         .read_health = [](std::string* text) { return EndvatUtil::GetHealthStatus(text); }});
  }
  void ProcessHealth() override { CtxtHealth::GetInstance().SendHealthStatus(); }
  void SendError(uint32_t code, const std::string& text) override {
    CtxtHealth::GetInstance().SendStatus(code, text);
  }
  void Shutdown() override { CtxtHealth::GetInstance().Shutdown(); }
};

class HealthOfConfig final : public ConfigHealth {
 public:
  void SendStatus(uint32_t code, const std::string& text) override {
    CtxtHealth::GetInstance().SendStatus(code, text);
  }
};

class ChannelDownAlarm final : public PartnerAlarm {
 public:
  void Start() override { OuviAlarm::GetInstance().Start(); }
  bool Raise(const std::string& service_instance_id) override {
    return OuviAlarm::GetInstance().Raise(OuviAlarm::kPartnerChannelDown, service_instance_id);
  }
  bool Reset(const std::string& service_instance_id) override {
    return OuviAlarm::GetInstance().Reset(OuviAlarm::kPartnerChannelDown, service_instance_id);
  }
  void ResetAll(const std::string& service_instance_id) override {
    OuviAlarm::GetInstance().ResetAll(OuviAlarm::kPartnerChannelDown, service_instance_id);
  }
  void Shutdown() override { OuviAlarm::GetInstance().Shutdown(); }
};

// Its brokers' alarm is the one of intrusion detection: there is one for the node.
const std::shared_ptr<PaceClient::Pace>& PaceOfAgent() {
  // Never destroyed: guests' threads may be in it while the process ends.
  static const auto& pace = *new auto(
      std::make_shared<PaceClient::Pace>(CtxtCore::GetInstance().guests(), &IdsOfAgent()->kafka_alarm(),
                                         IdsEvtEng::IdsCounters::Process().deliveries));
  return pace;
}

}  // namespace

const std::shared_ptr<Idfw>& IdfwOfAgent() {
  return Idfw::GetInstance(CtxtCore::GetInstance().guests(), CtxtChannel::GetInstance());
}

EngineParts PartsOfAgent(zem::AsioZemProvider& provider) {
  EngineParts parts;
  parts.make_library = &MakeEndvatLib;
  parts.firewall = &DfwUtil::DfwConnector::GetInstance();
  parts.clients.sample = SampleClient::GetInstance();
  parts.clients.idfw = IdfwOfAgent();
  parts.clients.idfw_updates = IdfwOfAgent();
  parts.clients.ids = IdsOfAgent();
  parts.clients.ids_updates = IdsOfAgent();
  parts.clients.pace = PaceOfAgent();
  parts.clients.is_well_known_sid = [idfw = IdfwOfAgent()](const std::string& sid) {
    return idfw->IsUserIgnored(sid);
  };
  parts.introspection = std::make_shared<OuviIntrospection>(std::make_shared<ChannelDownAlarm>(),
                                                            std::make_shared<HealthOfConfig>());
  parts.health = std::make_shared<HealthOfAgent>();
  parts.channel = std::make_shared<ChannelOfAgent>(provider);
  return parts;
}

}  // namespace Ctxt
