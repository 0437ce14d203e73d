#include "app/ctxteng/introspection/ouvi_introspection.h"

#include <utility>

#include "app/ctxteng/guest/endvat_util.h"
#include "app/ctxteng/introspection/ouvi_config.h"
#include "app/ctxteng/introspection/surroundings.h"

namespace Ctxt {
namespace {

class LibraryPort final : public MuxPort {
 public:
  uint32_t ConfigureMux(const std::string& bytes) override {
    return EndvatUtil::ConfigureMux(bytes.data(), static_cast<uint32_t>(bytes.size()));
  }
};

class NoAlarm final : public PartnerAlarm {
 public:
  void Start() override {}
  bool Raise(const std::string&) override { return false; }
  bool Reset(const std::string&) override { return false; }
  void ResetAll(const std::string&) override {}
  void Shutdown() override {}
};

class NoHealth final : public ConfigHealth {
 public:
  void SendStatus(uint32_t, const std::string&) override {}
};

}  // namespace

OuviIntrospection::OuviIntrospection(std::shared_ptr<PartnerAlarm> alarm,
                                     std::shared_ptr<ConfigHealth> health)
    : alarm_(alarm ? std::move(alarm) : std::make_shared<NoAlarm>()),
      health_(health ? std::move(health) : std::make_shared<NoHealth>()) {}

OuviIntrospection::~OuviIntrospection() = default;

void OuviIntrospection::Initialize(const std::shared_ptr<zem::covedb::CoveDbClientInterface>& store,
                                   const std::shared_ptr<zem::upm::UPMService>& profiles) {
  config_ = std::make_unique<OuviConfig>(std::make_shared<LibraryPort>(), alarm_, health_);
  config_->Start(store, profiles);
}

void OuviIntrospection::MuxConnected() { config_->HandleMuxConnected(); }
void OuviIntrospection::MuxDisconnected() { config_->HandleMuxDisconnected(); }
void OuviIntrospection::SvmConnected(const std::string& solution_id) {
  config_->HandleSvmConnected(solution_id);
}
void OuviIntrospection::SvmDisconnected(const std::string& solution_id) {
  config_->HandleSvmDisconnected(solution_id);
}
void OuviIntrospection::Shutdown() {
  // An engine whose library has failed stops without having come to its configuration.
  if (config_ != nullptr) config_->Shutdown();
}

}  // namespace Ctxt
