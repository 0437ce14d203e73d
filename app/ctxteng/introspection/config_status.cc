#include "app/ctxteng/introspection/config_status.h"

#include <array>

#include "app/ctxteng/introspection/surroundings.h"

namespace Ctxt {
namespace {

struct StatusText {
  ConfigStatus status;
  const char* text;
};
constexpr std::array kTexts = {
    StatusText{ConfigStatus::kVmDone, "Successfully configured Mux with VM config"},
    StatusText{ConfigStatus::kVmNotSerialized, "Error in serializing VM config protobuf message"},
    StatusText{ConfigStatus::kVmRefused,
               "Error in zem-context-library while configuring zem-context-mux with VM config"},
    StatusText{ConfigStatus::kVmFailed, "Error in processing UPM VM config update message"},
    StatusText{ConfigStatus::kSolutionDone, "Successfully configured Mux with solution config"},
    StatusText{ConfigStatus::kSolutionNotSerialized, "Error in serializing solution config protobuf message"},
    StatusText{ConfigStatus::kSolutionNotMonitored,
               "Error in configuring Covedb monitor for solution config message"},
    StatusText{ConfigStatus::kSolutionFailed, "Error in processing Covedb solution config update message"},
    StatusText{ConfigStatus::kSolutionRefused,
               "Error in zem-context-library while configuring zem-context-mux with solution config"},
    StatusText{ConfigStatus::kAmDone, "Successfully configured Mux with AM config"},
    StatusText{ConfigStatus::kAmNotSerialized, "Error in serializing AM config protobuf message"},
    StatusText{ConfigStatus::kAmNotMonitored, "Error in configuring Covedb monitor for AM config message"},
    StatusText{ConfigStatus::kAmFailed, "Error in processing Covedb AM config update message"},
    StatusText{ConfigStatus::kAmRefused,
               "Error in zem-context-library while configuring zem-context-mux with AM config"},
};

}  // namespace

const char* ConfigStatusText(ConfigStatus status) {
  for (const StatusText& row : kTexts) {
    if (row.status == status) return row.text;
  }
  return "";
}

void SendStatus(ConfigHealth& health, ConfigStatus status) {
  health.SendStatus(static_cast<uint32_t>(status), ConfigStatusText(status));
}

}  // namespace Ctxt
