#include "app/zema/host/vif_handler.h"

#include "app/zema/qub/vif_request.h"
#include "framework/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};

}  // namespace

void UnservedVifHandler::DoVifPortOperation(VifRequest& request, Thread&) {
  switch (request.op_code) {
    case VifRequest::kUnsupported:
    case VifRequest::kAttachLiveMove:
    case VifRequest::kDetachLiveMove:
      ZLOG_INFO("[%s] ignore opCode: [%s:%d]\n", __func__, request.KindText().c_str(), request.op_code);
      return;
    default:
      request.error_text = kNotServed;
  }
}

}  // namespace zem::zema
