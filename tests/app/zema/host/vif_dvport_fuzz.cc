#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "app/zema/host/vif_dvport_thread.h"
#include "app/zema/ports/vif_request.h"

// A list of the vNIC socket, without its length.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using zem::zema::VifRequest;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  for (const auto& request : zem::zema::VifDvportThread::RequestsOf(bytes)) {
    const bool attach = request->op_code == VifRequest::kAttach;
    if (!attach && request->op_code != VifRequest::kDetach) std::abort();
    if (request->op_id.rfind(attach ? "dvport-attach-" : "dvport-detach-", 0) != 0) std::abort();
    if (request->request || request->ls_id.find(':') != std::string::npos) std::abort();
  }
  return 0;
}
