#pragma once

#include <cerrno>
#include <cstdint>
#include <string>

namespace orlane::zem::switching {
class HostConfigMsg;
class HostSwitchMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

/// The result of every call while the library is not loaded; the library itself never returns it.
inline constexpr int kNoEndpointLibrary = ELIBACC;

/// The calls of the host's endpoint library that configure endpoint high availability of a switch, which is
/// named by its id.  Times are in seconds.  Each call returns 0 or an errno.
class TepHaLibrary {
 public:
  virtual ~TepHaLibrary() = default;
  virtual int SetTEPHA(const std::string& dvs, bool enabled) = 0;
  virtual int SetTEPHAAutoRecover(const std::string& dvs, bool enabled) = 0;
  virtual int SetTEPHAAutoRecoverStartTime(const std::string& dvs, uint32_t seconds) = 0;
  virtual int SetTEPHAAutoRecoverBackoff(const std::string& dvs, uint32_t seconds) = 0;
  virtual int SetTEPHATimeout(const std::string& dvs, uint32_t seconds) = 0;
};

/// A readable text for an errno of the endpoint library.
const char* TepHaErrorText(int code);

/// Passes the switch's endpoint high availability settings to the datapath.  Returns true at once when the
/// switch has none, and false with the reason in `error` at the first setting that the library refuses.
[[nodiscard]] bool ProcessVtepHAProfile(TepHaLibrary& library,
                                        const orlane::zem::switching::HostSwitchMsg& host_switch,
                                        std::string* error);

/// Does the same for all switches of a stored configuration when the agent starts; errors are only logged.
void ProcessVtepHAProfileAndIgnoreErrors(TepHaLibrary& library,
                                         const orlane::zem::switching::HostConfigMsg& config);

}  // namespace zem::zema
