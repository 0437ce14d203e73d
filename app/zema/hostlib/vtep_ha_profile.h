#pragma once

#include <cerrno>
#include <cstdint>
#include <string>

namespace orlane::zem::switching {
class HostConfigMsg;
class HostSwitchMsg;
}  // namespace orlane::zem::switching

namespace zem::zema {

/// In place of the library's errno when there is no library: none of its own codes.
inline constexpr int kNoEndpointLibrary = ELIBACC;

/// The settings of endpoint high availability, as the host's endpoint library takes them: by the switch's id,
/// times in seconds.  Each gives 0, or the library's reason, an errno.
class TepHaLibrary {
 public:
  virtual ~TepHaLibrary() = default;
  virtual int SetTEPHA(const std::string& dvs, bool enabled) = 0;
  virtual int SetTEPHAAutoRecover(const std::string& dvs, bool enabled) = 0;
  virtual int SetTEPHAAutoRecoverStartTime(const std::string& dvs, uint32_t seconds) = 0;
  virtual int SetTEPHAAutoRecoverBackoff(const std::string& dvs, uint32_t seconds) = 0;
  virtual int SetTEPHATimeout(const std::string& dvs, uint32_t seconds) = 0;
};

/// What an errno of the endpoint library means, for people.
const char* TepHaErrorText(int code);

/// Tells the datapath the switch's settings of endpoint high availability; true at once when it has none.
/// False with the reason in `error` at the first that the library refuses.
[[nodiscard]] bool ProcessVtepHAProfile(TepHaLibrary& library,
                                        const orlane::zem::switching::HostSwitchMsg& host_switch,
                                        std::string* error);

/// The same over all switches of a stored configuration when the agent starts: errors are only logged.
void ProcessVtepHAProfileAndIgnoreErrors(TepHaLibrary& library,
                                         const orlane::zem::switching::HostConfigMsg& config);

}  // namespace zem::zema
