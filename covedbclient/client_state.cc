#include "covedbclient/client_state.h"

#include <array>
#include <cstddef>

namespace zem::covedb {

const char* ClientStateName(ClientState state) {
  static constexpr std::array kNames = {
      "NONE",      "INIT",         "CONNECTING", "REQUEST_OPS_STUB", "REQUEST_DAEMON_HEALTH_STUB",
      "CONNECTED", "DISCONNECTED", "ERROR",
  };
  const auto index = static_cast<size_t>(state);
  return index < kNames.size() ? kNames[index] : "<INVALID>";
}

}  // namespace zem::covedb
