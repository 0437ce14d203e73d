#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "app/zema/hostlib/vtep_ha_profile.h"
#include "framework/process/dynamic_library.h"
#include "platform/switchlib/endpointlib.h"

namespace zem::zema {

/// The host's library of tunnel endpoints.
///
/// Threads: all calls from any thread; Open and Close by the owner, while nobody calls.
/// Errors: each call returns 0 or the library's errno, or kNoEndpointLibrary when the library is not loaded.
class EndpointLibrary final : public TepHaLibrary {
 public:
  explicit EndpointLibrary(std::string file = "libvdl2kln.so");
  ~EndpointLibrary() override;
  EndpointLibrary(const EndpointLibrary&) = delete;
  EndpointLibrary& operator=(const EndpointLibrary&) = delete;

  [[nodiscard]] bool Open(std::string* error);
  void Close();
  bool loaded() const { return library_.is_open(); }

  /// Returns the number of the endpoint `device`, or nothing, with a log line, when it cannot be read.
  std::optional<uint32_t> EndpointId(const std::string& switch_name, const std::string& device) const;

  /// The result of a call, and errno.
  struct Outcome {
    int result = 0;
    int error = 0;
  };
  /// `state` is 1 for up and 0 for down; other numbers are passed to the library unchanged.
  Outcome SetKnlnicState(const std::string& switch_name, const std::string& device, int state) const;
  Outcome RecoverKnlnic(const std::string& switch_name, const std::string& device) const;

  int SetTEPHA(const std::string& dvs, bool enabled) override;
  int SetTEPHAAutoRecover(const std::string& dvs, bool enabled) override;
  int SetTEPHAAutoRecoverStartTime(const std::string& dvs, uint32_t seconds) override;
  int SetTEPHAAutoRecoverBackoff(const std::string& dvs, uint32_t seconds) override;
  int SetTEPHATimeout(const std::string& dvs, uint32_t seconds) override;

 private:
  struct Calls {
    decltype(&::VDL2KNL_GetKnlnic) get_knlnic = nullptr;
    decltype(&::VDL2KNL_ReleaseKnlnic) release_knlnic = nullptr;
    decltype(&::VDL2KNL_SetKnlnicState) set_knlnic_state = nullptr;
    decltype(&::VDL2KNL_TEPHARecoverKnlnic) recover_knlnic = nullptr;
    decltype(&::VDL2KNL_SetTEPHA) set_tepha = nullptr;
    decltype(&::VDL2KNL_SetTEPHAAutoRecover) set_auto_recover = nullptr;
    decltype(&::VDL2KNL_SetTEPHAAutoRecoverStartTime) set_start_time = nullptr;
    decltype(&::VDL2KNL_SetTEPHAAutoRecoverBackoff) set_backoff = nullptr;
    decltype(&::VDL2KNL_SetTEPHATimeout) set_timeout = nullptr;
  };
  std::vector<DynamicLibrary::Symbol> Symbols();
  template <class Function, class... Arguments>
  static Outcome Call(const char* name, const std::string& on, Function function, Arguments... arguments);

  DynamicLibrary library_;
  Calls calls_;
};

}  // namespace zem::zema
