#include "app/ctxteng/introspection/ouvi_config.h"

#include "app/ctxteng/introspection/am_config.h"
#include "app/ctxteng/introspection/solution_config.h"
#include "app/ctxteng/introspection/surroundings.h"
#include "app/ctxteng/introspection/vm_config.h"
#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

}  // namespace

OuviConfig::OuviConfig(const std::shared_ptr<MuxPort>& port, std::shared_ptr<PartnerAlarm> alarm,
                       const std::shared_ptr<ConfigHealth>& health)
    : alarm_(std::move(alarm)),
      solutions_(std::make_shared<PartnerSolutions>(alarm_)),
      pusher_(std::make_shared<MuxPusher>(port, [this] { ResendAll(); })),
      vm_config_(std::make_shared<VmConfig>(pusher_, health)),
      solution_config_(std::make_shared<SolutionConfig>(pusher_, solutions_, health)),
      am_config_(std::make_shared<AMConfig>(pusher_, health)) {}

OuviConfig::~OuviConfig() { pusher_->Stop(); }

void OuviConfig::Start(std::shared_ptr<zem::covedb::CoveDbClientInterface> store,
                       std::shared_ptr<zem::upm::UPMService> profile_service) {
  alarm_->Start();
  vm_config_->Start(std::move(profile_service));
  solution_config_->Start(store);
  am_config_->Start(store);
}

void OuviConfig::Shutdown() {
  ZLOG_INFO("OuviConfig: Shutdown");
  pusher_->Stop();
  alarm_->Shutdown();
}

void OuviConfig::ResendAll() {
  vm_config_->HandleMuxReconnect();
  solution_config_->HandleMuxReconnect();
  am_config_->HandleMuxReconnect();
}

void OuviConfig::HandleMuxConnected() {
  ZLOG_INFO("OuviConfig: Handle Mux connect");
  switch (pusher_->state()) {
    case UNINITIALIZED:
      ZLOG_INFO("OuviConfig: Mux connecting for first time case");
      SetMuxState(MUX_CONNECTED);
      return;
    case MUX_CONNECTED:
      ZLOG_INFO("OuviConfig: Mux is already connected!");
      return;
    case MUX_DISCONNECTED:
      ZLOG_INFO("OuviConfig: Mux reconnect case");
      ResendAll();
      SetMuxState(MUX_CONNECTED);
      solutions_->MuxReconnected();
      return;
  }
}

void OuviConfig::HandleMuxDisconnected() {
  ZLOG_INFO("OuviConfig: Handle Mux disconnected");
  switch (pusher_->state()) {
    case UNINITIALIZED:
      ZLOG_INFO("OuviConfig: Mux disconnect received without a connect!");
      SetMuxState(MUX_DISCONNECTED);
      return;
    case MUX_DISCONNECTED:
      ZLOG_INFO("OuviConfig: Mux is already disconnected!");
      return;
    case MUX_CONNECTED:
      ZLOG_INFO("OuviConfig: Mux disconnect case");
      SetMuxState(MUX_DISCONNECTED);
      solutions_->MuxDisconnected();
      return;
  }
}

}  // namespace Ctxt
