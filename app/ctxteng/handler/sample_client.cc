#include "app/ctxteng/handler/sample_client.h"

#include "framework/log/log.h"

namespace Ctxt {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

}  // namespace

std::shared_ptr<SampleClient> SampleClient::GetInstance() {
  static const auto client = std::make_shared<SampleClient>();
  ZLOG_INFO("SampleClient: GetInstance");
  return client;
}

SampleClient::SampleClient() { ZLOG_INFO("SampleClient: constructor"); }

SampleClient::~SampleClient() { ZLOG_INFO("SampleClient: destructor"); }

void SampleClient::Initialize(const CtxtClientParam& param,
                              const std::shared_ptr<zem::covedb::CoveDbClientInterface>&) {
  ZLOG_INFO("SampleClient: Initialize, arg: %d", static_cast<int>(param.cacheLimit));
}

void SampleClient::VmPowerOnEventHandler(const std::shared_ptr<VmData>&) {
  ZLOG_INFO("SampleClient: VmPowerOnEventHandler");
}

void SampleClient::VmPowerOffEventHandler(const std::shared_ptr<VmData>&) {
  ZLOG_INFO("SampleClient: VmPowerOffEventHandler");
}

void SampleClient::TimerEventHandler(const std::shared_ptr<VmData>&) {
  ZLOG_INFO("SampleClient: TimerEventHandler");
}

void SampleClient::Shutdown() { ZLOG_INFO("SampleClient: Shutdown"); }

}  // namespace Ctxt
