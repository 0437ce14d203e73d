#include "app/zema/hostlib/endpoint_library.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "app/zema/hostlib/library_step.h"
#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

int ErrorOf(const EndpointLibrary::Outcome& outcome) {
  if (outcome.result == 0) return 0;
  return outcome.error != 0 ? outcome.error : outcome.result;
}

}  // namespace

EndpointLibrary::EndpointLibrary(std::string file) : library_(std::move(file)) {}
EndpointLibrary::~EndpointLibrary() = default;

std::vector<DynamicLibrary::Symbol> EndpointLibrary::Symbols() {
  return {
      DynamicLibrary::Of("VDL2KNL_GetKnlnic", &calls_.get_knlnic),
      DynamicLibrary::Of("VDL2KNL_ReleaseKnlnic", &calls_.release_knlnic),
      DynamicLibrary::Of("VDL2KNL_SetKnlnicState", &calls_.set_knlnic_state),
      DynamicLibrary::Of("VDL2KNL_TEPHARecoverKnlnic", &calls_.recover_knlnic),
      DynamicLibrary::Of("VDL2KNL_SetTEPHA", &calls_.set_tepha),
      DynamicLibrary::Of("VDL2KNL_SetTEPHAAutoRecover", &calls_.set_auto_recover),
      DynamicLibrary::Of("VDL2KNL_SetTEPHAAutoRecoverStartTime", &calls_.set_start_time),
      DynamicLibrary::Of("VDL2KNL_SetTEPHAAutoRecoverBackoff", &calls_.set_backoff),
      DynamicLibrary::Of("VDL2KNL_SetTEPHATimeout", &calls_.set_timeout),
  };
}

bool EndpointLibrary::Open(std::string* error) { return library_.Open(Symbols(), error); }
void EndpointLibrary::Close() { library_.Close(Symbols()); }

template <class Function, class... Arguments>
EndpointLibrary::Outcome EndpointLibrary::Call(const char* name, const std::string& on, Function function,
                                               Arguments... arguments) {
  if (function == nullptr) return {-1, kNoEndpointLibrary};
  LibraryStep step(name, on);
  errno = 0;
  const int result = function(arguments...);
  const Outcome outcome{result, result == 0 ? 0 : errno};
  step(static_cast<uint32_t>(ErrorOf(outcome)));
  return outcome;
}

std::optional<uint32_t> EndpointLibrary::EndpointId(const std::string& switch_name,
                                                    const std::string& device) const {
  int error = kNoEndpointLibrary;
  void* knlnic = nullptr;
  if (calls_.get_knlnic != nullptr) {
    LibraryStep step("VDL2KNL_GetKnlnic", device);
    error = 0;
    knlnic = calls_.get_knlnic(switch_name.c_str(), device.c_str(), nullptr, nullptr, nullptr, &error);
    if (knlnic == nullptr && error == 0) error = ENOENT;
    step(knlnic == nullptr ? static_cast<uint32_t>(error) : 0);
  }
  if (knlnic == nullptr) {
    ZLOG_WARN("[%s] No endpoint [%s] on switch [%s], error code [%d]", __func__, device.c_str(),
              switch_name.c_str(), error);
    return std::nullopt;
  }
  uint32_t id = 0;
  std::memcpy(&id, knlnic, sizeof(id));
  const Outcome released = Call("VDL2KNL_ReleaseKnlnic", device, calls_.release_knlnic, knlnic);
  if (released.result != 0) {
    ZLOG_WARN("[%s] Endpoint [%s] was not released, error code [%d]", __func__, device.c_str(),
              released.error);
  }
  return id;
}

EndpointLibrary::Outcome EndpointLibrary::SetKnlnicState(const std::string& switch_name,
                                                         const std::string& device, int state) const {
  return Call("VDL2KNL_SetKnlnicState", device, calls_.set_knlnic_state, switch_name.c_str(), device.c_str(),
              0U, state);
}

EndpointLibrary::Outcome EndpointLibrary::RecoverKnlnic(const std::string& switch_name,
                                                        const std::string& device) const {
  return Call("VDL2KNL_TEPHARecoverKnlnic", device, calls_.recover_knlnic, switch_name.c_str(),
              device.c_str(), 0U);
}

int EndpointLibrary::SetTEPHA(const std::string& dvs, bool enabled) {
  int error = 0;
  const Outcome outcome =
      Call("VDL2KNL_SetTEPHA", dvs, calls_.set_tepha, dvs.c_str(), enabled ? 1 : 0, &error);
  return ErrorOf(outcome);
}
int EndpointLibrary::SetTEPHAAutoRecover(const std::string& dvs, bool enabled) {
  return ErrorOf(
      Call("VDL2KNL_SetTEPHAAutoRecover", dvs, calls_.set_auto_recover, dvs.c_str(), enabled ? 1 : 0));
}
int EndpointLibrary::SetTEPHAAutoRecoverStartTime(const std::string& dvs, uint32_t seconds) {
  return ErrorOf(
      Call("VDL2KNL_SetTEPHAAutoRecoverStartTime", dvs, calls_.set_start_time, dvs.c_str(), seconds));
}
int EndpointLibrary::SetTEPHAAutoRecoverBackoff(const std::string& dvs, uint32_t seconds) {
  return ErrorOf(Call("VDL2KNL_SetTEPHAAutoRecoverBackoff", dvs, calls_.set_backoff, dvs.c_str(), seconds));
}
int EndpointLibrary::SetTEPHATimeout(const std::string& dvs, uint32_t seconds) {
  return ErrorOf(Call("VDL2KNL_SetTEPHATimeout", dvs, calls_.set_timeout, dvs.c_str(), seconds));
}

}  // namespace zem::zema
