#include "app/ctxteng/engine/ctxt_eng.h"

#include <algorithm>
#include <boost/property_tree/ptree.hpp>
#include <iterator>

#include "app/ctxteng/base/exceptions.h"
#include "app/ctxteng/engine/ctxt_core.h"
#include "app/ctxteng/engine/ctxt_options.h"
#include "app/ctxteng/engine/engine_parts_of_agent.h"
#include "app/ctxteng/engine/guests_command.h"
#include "app/ctxteng/engine/ids_of_agent.h"
#include "app/ctxteng/engine/protocol_mask_commands.h"
#include "app/ctxteng/idfw/idfw.h"
#include "app/ctxteng/idfw/idfw_commands.h"
#include "app/ctxteng/ids/ids_command.h"
#include "app/ctxteng/idsevents/ids_commands.h"
#include "app/ctxteng/idsevents/ids_counters.h"
#include "app/ctxteng/idsqueue/node_records.h"
#include "app/ctxteng/kafka/kafka_client.h"
#include "framework/log/log.h"

namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

}  // namespace

using Ctxt::CtxtCore;

struct CtxtEng::Options {
  std::string path;
  boost::property_tree::ptree whole;
  boost::property_tree::ptree engine;
  CtxtCore::Settings settings;
};

CtxtEng::CtxtEng(zem::AsioZemProvider& provider, std::shared_ptr<zem::covedb::CoveDbClientInterface> store,
                 std::shared_ptr<zem::upm::UPMService> profiles)
    : CtxtEng(provider, std::move(store), std::move(profiles), &Ctxt::PartsOfAgent, Ctxt::kCtxtOptionsPath) {}

CtxtEng::CtxtEng(zem::AsioZemProvider& provider, std::shared_ptr<zem::covedb::CoveDbClientInterface> store,
                 std::shared_ptr<zem::upm::UPMService> profiles, MakeParts make_parts,
                 std::string options_path)
    : provider_(provider),
      store_(std::move(store)),
      profiles_(std::move(profiles)),
      make_parts_(std::move(make_parts)),
      options_(std::make_unique<Options>()) {
  options_->path = std::move(options_path);
}

CtxtEng::~CtxtEng() = default;

int CtxtEng::Start() {
  ZLOG_INFO("CtxtEng: Starting Context Engine");
  if (!LoadOptions()) {
    ZLOG_CTX_ERROR(2, "CtxtEng: Failed to load config file %s", options_->path.c_str());
    CtxtCore::GetInstance().NotifyStarted();
    return -1;
  }
  const CtxtCore::Settings& settings = options_->settings;
  ZLOG_INFO("CtxtEng: Configuration:");
  ZLOG_INFO("\tListen port: %s", settings.listen_port.c_str());
  ZLOG_INFO("\tnumWorkerThreads: %s", settings.worker_threads.c_str());
  ZLOG_INFO("\tmaxEventsPerVm: %s", settings.max_events_per_vm.c_str());
  ZLOG_INFO("\tclients: %u", settings.client_ids);
  ZLOG_INFO("CtxtEng: Initializing Context core client bmap :: %x ", settings.client_ids);
  InitializeCore();
  ZLOG_INFO("CtxtEng: Waiting for events from guest agents...");
  return 0;
}

bool CtxtEng::LoadOptions() {
  options_->settings = {};
  if (!LoadCtxtOptions(options_->path, &options_->whole, &options_->engine, &options_->settings))
    return false;
  if ((options_->settings.client_ids & Ctxt::kIdsBit) != 0) options_->settings.param.provider = &provider_;
  return true;
}

// Whatever fails here, the agent's other applications do not wait for the engine.
void CtxtEng::InitializeCore() {
  CtxtCore& core = CtxtCore::GetInstance();
  try {
    core.Initialize(options_->settings, make_parts_(provider_), store_, profiles_);
    return;
  } catch (const Ctxt::EndvatApiError& error) {
    ZLOG_CTX_ERROR(3, "CtxtEng: Crtical exception, %s", error.what());
    SetFault(&CtxtEng::library_fault_, error.what());
  } catch (const Ctxt::CtxtInvalidParameterError& error) {
    ZLOG_CTX_ERROR(3, "CtxtEng: Critical exception, %s", error.what());
    SetFault(&CtxtEng::engine_fault_, error.what());
  } catch (const Ctxt::CtxtException& error) {
    ZLOG_CTX_ERROR(3, "CtxtEng: Crtical exception, %s", error.what());
    SetFault(&CtxtEng::engine_fault_, error.what());
  } catch (const std::exception& error) {
    ZLOG_CTX_ERROR(3, "CtxtEng: Crtical exception : %s", error.what());
    SetFault(&CtxtEng::engine_fault_, error.what());
  } catch (...) {
    ZLOG_CTX_ERROR(3, "CtxtEng: Unhandled critical exception during init");
    SetFault(&CtxtEng::engine_fault_, "an unknown exception");
  }
  core.NotifyStarted();
}

void CtxtEng::SetFault(std::string CtxtEng::*fault, const char* what) {
  const std::lock_guard lock(mutex_);
  this->*fault = what;
}

void CtxtEng::Describe(std::vector<zem::Tarvik::PartState>* parts) const {
  constexpr const char* kRestart =
      "repair what the log names, then restart the daemon; the engine starts once";
  zem::Tarvik::PartState engine{"context engine", {}, {}};
  zem::Tarvik::PartState library{"guest library", {}, {}};
  {
    const std::lock_guard lock(mutex_);
    if (!library_fault_.empty()) library = {library.part, library_fault_, kRestart};
    if (!engine_fault_.empty()) engine = {engine.part, engine_fault_, kRestart};
  }
  if (!library.fault.empty()) engine = {engine.part, "did not start without the guest library", kRestart};
  if (engine.fault.empty() && !CtxtCore::GetInstance().started()) {
    engine = {engine.part, "is starting", "ends when its clients have started"};
  }
  if (library.fault.empty()) {
    zem::Tarvik::PartState mux{"guest multiplexer", {}, {}};
    if (CtxtCore::GetInstance().mux_away()) {
      mux.fault = "has gone; no guest can be seen";
      mux.heals = "the guest library connects by itself when zem-context-mux runs; look whether it does";
    }
    parts->push_back(std::move(mux));
  }
  parts->push_back(std::move(library));
  parts->push_back(std::move(engine));
  for (const Ctxt::PaceClient::KafkaClient::Reading& client : Ctxt::PaceClient::KafkaClient::ReadAll()) {
    zem::Tarvik::PartState state{"kafka " + client.brokers, {}, {}};
    if (client.down) {
      state.fault =
          "all brokers are down; messages wait, and are given up when 64 MiB wait or five minutes pass";
      state.heals = "the client connects by itself when a broker can be reached";
    }
    parts->push_back(std::move(state));
  }
}

void CtxtEng::WaitForStart() { CtxtCore::GetInstance().WaitForStart(); }

void CtxtEng::Stop() {
  CtxtCore::GetInstance().Shutdown(options_->settings.client_ids);
  ZLOG_INFO("CtxtEng: Exiting Context Engine");
}

std::vector<zem::Tarvik::CliCommand> CtxtEng::Commands() {
  CtxtCore& core = CtxtCore::GetInstance();
  auto commands = Ctxt::ProtocolMaskCommands(core.guests());
  commands.push_back(Ctxt::GuestsCommand(core.guests()));
  commands.push_back(
      Ctxt::IdfwStatusCommand(*Ctxt::IdfwOfAgent(), [&core] { return core.active_clients(); }));
  commands.push_back(Ctxt::IdsStatusCommand(*Ctxt::IdsOfAgent()));
  std::ranges::move(
      IdsEvtEng::IdsStatisticsCommands(IdsEvtEng::IdsCounters::Process(), IdsEvtEng::NodeRecords::Process()),
      std::back_inserter(commands));
  return commands;
}
