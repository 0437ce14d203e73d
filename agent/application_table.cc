// A class per application adapts its own start and stop to the interface; it adds nothing else.

#include "agent/application_table.h"

#include <array>

#include "app/alarmsprovider/service/alarms_provider.h"
#include "app/ctxteng/alarm/alarm_command.h"
#include "app/ctxteng/engine/ctxt_eng.h"
#include "app/healthcheck/health_check.h"
#include "app/ipreputation/ip_reputation_comm_mgr.h"
#include "app/livetrace/livetrace_app.h"
#include "app/livetrace/livetrace_commands.h"
#include "app/lldp/lldp.h"
#include "app/pktcap/service/pktcap_app.h"
#include "app/pktcap/service/pktcap_commands.h"
#include "app/supportbundle/support_bundle_client.h"
#include "app/traceflow/traceflow_app.h"
#include "app/zema/app/zema_app.h"
#include "app/zema/app/zema_commands.h"
#include "app/zemda/service/discovery_agent.h"
#include "framework/hostapi/lum_client.h"
#include "framework/hostapi/lum_command.h"
#include "platform/provider/work_group.h"
#include "platform/upm/upm_service.h"

namespace zem::Tarvik {
namespace {

bool IsOn(Mode mode) {
  uint8_t on = 0;
  GetMode(mode, &on);
  return on != 0;
}

// The realization while it exists, for applications that have to see the host's configurations.
ZemaApp* the_realization = nullptr;

class RealizationRow final : public Application {
 public:
  explicit RealizationRow(const ApplicationContext& context)
      : zema_(context.provider, nullptr, context.store) {
    the_realization = &zema_;
  }
  ~RealizationRow() override { the_realization = nullptr; }

  std::vector<CliCommand> Commands() override { return ZemaCommands(zema_); }
  void Describe(std::vector<PartState>* parts) override { zema_.Describe(parts); }
  bool Start() override {
    return zema_.Start(IsOn(Mode::kOvsDpdk), IsOn(Mode::kOvsDpdkCreateVif), IsOn(Mode::kLacpBonding)) == 0;
  }
  void WaitStarted() override { zema_.WaitStarted(); }
  void Stop() override { zema_.Stop(0); }

 private:
  ZemaApp zema_;
};

class ContextEngineRow final : public Application {
 public:
  explicit ContextEngineRow(const ApplicationContext& context)
      : engine_(context.provider, context.store, context.update_service) {}

  std::vector<CliCommand> Commands() override { return engine_.Commands(); }
  void Describe(std::vector<PartState>* parts) override { engine_.Describe(parts); }
  bool Start() override { return engine_.Start() == 0; }
  void WaitStarted() override { engine_.WaitForStart(); }
  void Stop() override { engine_.Stop(); }

 private:
  CtxtEng engine_;
};

class TraceflowRow final : public Application {
 public:
  explicit TraceflowRow(const ApplicationContext& context)
      : traceflow_(std::make_shared<TraceflowApp>(context.provider, context.lcp_adapter)) {}

  bool Start() override {
    traceflow_->Start();
    return true;
  }
  void Stop() override { traceflow_->Stop(); }

 private:
  const std::shared_ptr<TraceflowApp> traceflow_;
};

class HealthCheckRow final : public Application {
 public:
  explicit HealthCheckRow(const ApplicationContext& context)
      : check_(std::make_shared<HealthCheck>(context.provider)) {}

  bool Start() override {
    check_->Start();
    return true;
  }
  void Stop() override { check_->Stop(); }

 private:
  const std::shared_ptr<HealthCheck> check_;
};

class LivetraceRow final : public Application {
 public:
  explicit LivetraceRow(const ApplicationContext& context)
      : livetrace_(LivetraceApp::Create(context.provider, context.lcp_adapter, {})) {}

  std::vector<CliCommand> Commands() override { return LivetraceCommands(); }
  bool Start() override {
    livetrace_->Start();
    return true;
  }
  void Stop() override { livetrace_->Stop(); }

 private:
  const std::shared_ptr<LivetraceApp> livetrace_;
};

class DiscoveryRow final : public Application {
 public:
  explicit DiscoveryRow(const ApplicationContext& context) : agent_(context.provider, context.store) {}

  std::vector<CliCommand> Commands() override { return agent_.Commands(); }
  void Describe(std::vector<PartState>* parts) override { agent_.Describe(parts); }
  bool Start() override { return agent_.start() == 1; }
  void Stop() override { agent_.stop(); }

 private:
  ZemDa::DiscoveryAgent agent_;
};

class PktCapRow final : public Application {
 public:
  explicit PktCapRow(const ApplicationContext& context) : app_(context.provider) {}

  std::vector<CliCommand> Commands() override { return PktCapCommands(app_); }
  bool Start() override { return app_.Start(); }
  void Stop() override { app_.Stop(); }

 private:
  PktCapApp app_;
};

class CliServerRow final : public Application {
 public:
  explicit CliServerRow(const ApplicationContext& context) : server_(context.cli_server) {}

  std::vector<CliCommand> Commands() override { return {Ctxt::SetAlarmCommand()}; }
  bool Start() override {
    server_->Start();
    return true;
  }
  void Stop() override { server_->Stop(); }

 private:
  const boost::intrusive_ptr<CliServer> server_;
};

class LumClientRow final : public Application {
 public:
  explicit LumClientRow(const ApplicationContext& context)
      : client_(new LumClient(context.provider, context.framework_group)) {
    LumClient::Install(client_);
  }
  ~LumClientRow() override { LumClient::Install(nullptr); }

  std::vector<CliCommand> Commands() override { return {LumCommand()}; }
  void Describe(std::vector<PartState>* parts) override {
    std::vector<LumClient::LinkStatus> links;
    client_->GetLinkStatus(&links);
    for (const auto& [path, status] : links) {
      const bool up = status == LumLink::kUp;
      parts->push_back({"host API " + path, up ? "" : "is not connected",
                        up ? "" : "the daemon starts the host's API script again by itself"});
    }
  }
  bool Start() override {
    client_->Start();
    return true;
  }
  void Stop() override { client_->Stop(); }

 private:
  const boost::intrusive_ptr<LumClient> client_;
};

constexpr uint32_t kLldpModule = 1;

class LldpRow final : public Application {
 public:
  explicit LldpRow(const ApplicationContext& context) : lldp_(context.provider) {}

  bool Start() override {
    lldp_.Start(LumClient::Instance());
    if (the_realization != nullptr) {
      the_realization->RegisterHostCfgMsgCallBack(kLldpModule,
                                                  [](const orlane::zem::switching::HostConfigMsg&) {});
    }
    return true;
  }
  void Stop() override { lldp_.Stop(); }

 private:
  Lldp lldp_;
};

class IpReputationRow final : public Application {
 public:
  explicit IpReputationRow(const ApplicationContext& context) : manager_(context.provider, context.store) {}

  bool Start() override { return manager_.Start(); }
  void Stop() override { manager_.Stop(); }

 private:
  IpReputationCommMgr manager_;
};

class SupportBundleRow final : public Application {
 public:
  explicit SupportBundleRow(const ApplicationContext& context) : client_(context.provider) {}

  bool Start() override { return client_.Start(); }
  void Stop() override { client_.Stop(); }

 private:
  SupportBundleClient client_;
};

class AlarmsProviderRow final : public Application {
 public:
  explicit AlarmsProviderRow(const ApplicationContext& context)
      : alarms_(std::make_shared<AlarmsProvider>(context.provider, context.store, AlarmsProvider::Files())) {}

  std::vector<CliCommand> Commands() override { return alarms_->Commands(); }
  void Describe(std::vector<PartState>* parts) override { alarms_->Describe(parts); }
  bool Start() override { return alarms_->Start(); }
  void Stop() override { alarms_->Stop(); }

 private:
  const std::shared_ptr<AlarmsProvider> alarms_;
};

class UpdateServiceRow final : public Application {
 public:
  explicit UpdateServiceRow(const ApplicationContext& context) : service_(context.update_service) {}

  bool Start() override {
    service_->Start();
    return true;
  }
  void Stop() override { service_->Stop(); }

 private:
  const std::shared_ptr<upm::UPMService> service_;
};

template <class Row>
std::unique_ptr<Application> Make(const ApplicationContext& context) {
  return std::make_unique<Row>(context);
}

constexpr std::array kApplications = {
    ApplicationRow{.name = "ZemaApp",
                   .make = &Make<RealizationRow>,
                   .option = Mode::kZemaApp,
                   .host_role = true,
                   // Without its manager client the node would never hear of a configuration.
                   .start_failure = StartFailure::kEndsAgent,
                   .thread_name = "Main:zema_st",
                   .start_line = "Zema Start...",
                   .wait_line = "Waiting for Controller List app start...",
                   .start_step = "realization",
                   .wait_step = "controller list",
                   .create_rank = 90,
                   .stop_rank = 140},
    ApplicationRow{.name = "CtxtEng",
                   .make = &Make<ContextEngineRow>,
                   .option = Mode::kCtxtEng,
                   .thread_name = "Main:Ctxt_st",
                   .start_line = "CtxtEng Start...",
                   .wait_line = "Waiting for CtxtEng Start...",
                   .start_step = "context engine",
                   .wait_step = "context engine's clients",
                   .create_rank = 110,
                   .stop_rank = 110},
    ApplicationRow{.name = "CliServer",
                   .make = &Make<CliServerRow>,
                   .host_role = true,
                   .start_line = "CliServer Start...",
                   .start_step = "command server",
                   .create_rank = 20,
                   .stop_rank = 40},
    ApplicationRow{.name = "Traceflow",
                   .make = &Make<TraceflowRow>,
                   .option = Mode::kTraceflow,
                   .host_role = true,
                   .thread_name = "Main:Traceflow_st",
                   .start_line = "Traceflow Start...",
                   .start_step = "traceflow",
                   .create_rank = 60,
                   .stop_rank = 90},
    ApplicationRow{.name = "ZemDa",
                   .make = &Make<DiscoveryRow>,
                   .option = Mode::kZemda,
                   .host_role = true,
                   .thread_name = "Main:zemda_st",
                   .start_line = "ZemDa Start...",
                   .start_step = "discovery agent",
                   .create_rank = 120,
                   .stop_rank = 145},
    ApplicationRow{.name = "PktCapApp",
                   .make = &Make<PktCapRow>,
                   .option = Mode::kPktCap,
                   .host_role = true,
                   .thread_name = "Main:Pktcap_st",
                   .start_line = "Pktcap Start...",
                   .start_step = "packet capture",
                   .create_rank = 30,
                   .stop_rank = 50},
    ApplicationRow{.name = "Lldp",
                   .make = &Make<LldpRow>,
                   .option = Mode::kLldp,
                   .host_role = true,
                   .thread_name = "Main:lldp_st",
                   .start_line = "Lldp Start...",
                   .start_step = "LLDP",
                   .create_rank = 40,
                   .stop_rank = 60},
    ApplicationRow{.name = "HealthCheck",
                   .make = &Make<HealthCheckRow>,
                   .option = Mode::kHealthCheck,
                   .host_role = true,
                   .thread_name = "Main::Health_st",
                   .start_line = "Healthcheck Start...",
                   .start_step = "health check",
                   .create_rank = 15,
                   .stop_rank = 70},
    ApplicationRow{.name = "Livetrace",
                   .make = &Make<LivetraceRow>,
                   .option = Mode::kLivetrace,
                   .host_role = true,
                   .thread_name = "Main:Livetrace_st",
                   .start_line = "Livetrace Start...",
                   .start_step = "live trace",
                   .create_rank = 50,
                   .stop_rank = 80},
    ApplicationRow{.name = "LumClient",
                   .make = &Make<LumClientRow>,
                   .start_line = "LumClient Start...",
                   .start_step = "host API client",
                   .create_rank = 105,
                   .stop_rank = 100},
    ApplicationRow{.name = "IpReputation",
                   .make = &Make<IpReputationRow>,
                   .thread_name = "Main::IpReputation_st",
                   .start_line = "Ip Reputation Client start",
                   .start_step = "IP reputation",
                   .create_rank = 130,
                   .stop_rank = 120},
    ApplicationRow{.name = "SupportBundle",
                   .make = &Make<SupportBundleRow>,
                   .option = Mode::kSupportBundleClient,
                   .thread_name = "Main:sbc_st",
                   .start_line = "Sbundle Start...",
                   .start_step = "support bundles",
                   .create_rank = 70,
                   .stop_rank = 25},
    ApplicationRow{.name = "AlarmsProvider",
                   .make = &Make<AlarmsProviderRow>,
                   .option = Mode::kAlarmsProvider,
                   .thread_name = "Ops:Alarm",
                   .start_line = "Alarms Provider Start...",
                   .start_step = "alarms provider",
                   .create_rank = 100,
                   .stop_rank = 20},
    ApplicationRow{.name = "UPMService",
                   .make = &Make<UpdateServiceRow>,
                   .start_step = "profiles",
                   .create_rank = 10,
                   .stop_rank = 30},
};

}  // namespace

std::span<const ApplicationRow> ApplicationTable() { return kApplications; }

}  // namespace zem::Tarvik
