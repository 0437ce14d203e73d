#include "platform/upm/upm_service.h"

namespace zem::upm {

UPMService::UPMService(std::shared_ptr<covedb::CoveDbClientInterface> store) : store_(std::move(store)) {}

UPMService::~UPMService() = default;

void UPMService::Start() { started_ = store_ != nullptr; }

void UPMService::Stop() { started_ = false; }

}  // namespace zem::upm
