#include "app/pktcap/service/session_status.h"

#include <algorithm>
#include <array>

namespace zem::Tarvik {
namespace {

struct ErrorRow {
  int error;
  const char* text;
  uint32_t kind;
};

constexpr std::array kErrors = {
    ErrorRow{0, "ok", 0},
    ErrorRow{1, "general error", 0},
    ErrorRow{2, "get switch port fail", 1},
    ErrorRow{3, "get vnic port client name fail", 1},
    ErrorRow{4, "get knlnic fail", 1},
    ErrorRow{5, "get hwnic fail", 1},
    ErrorRow{6, "get vdrport fail", 1},
    ErrorRow{7, "get dvfilter fail", 1},
    ErrorRow{8, "get logical port fail", 1},
    ErrorRow{9, "get fcport fail", 1},
    ErrorRow{10, "get pnic fail", 1},
    ErrorRow{11, "get ifname fail", 1},
    ErrorRow{12, "invalid session id", 2},
    ErrorRow{13, "missing cap duration", 2},
    ErrorRow{14, "missing cap mode", 2},
    ErrorRow{15, "missing cap type", 2},
    ErrorRow{16, "missing cap value", 2},
    ErrorRow{17, "missing stream address", 2},
    ErrorRow{18, "unknown cap mode", 2},
    ErrorRow{19, "unknown cap type", 2},
    ErrorRow{20, "max active session reached on host", 7},
    ErrorRow{21, "session not found on host", 3},
    ErrorRow{22, "host not support packet capture CLI", 8},
    ErrorRow{23, "launch pktcap-uw fail", 4},
    ErrorRow{24, "file transfer error", 5},
    ErrorRow{25, "unknown or unsupported direction", 2},
    ErrorRow{28, "unknown stage", 2},
};

const ErrorRow& RowOf(SessionError error) {
  const auto row = std::find_if(kErrors.begin(), kErrors.end(),
                                [error](const ErrorRow& r) { return r.error == static_cast<int>(error); });
  return row == kErrors.end() ? kErrors[1] : *row;
}

}  // namespace

const char* SessionErrorText(SessionError error) { return RowOf(error).text; }
uint32_t SessionErrorKind(SessionError error) { return RowOf(error).kind; }

}  // namespace zem::Tarvik
