#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/zema/host/corvd_frame.h"
#include "app/zema/ports/vif_request.h"

// A header, and its payload: what is asked stays within its fields, and the answer carries the header back.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zem::zema;
  auto request = std::make_shared<CorvdRequest>();
  const size_t head = std::min(size, CorvdHeader::kSize);
  if (head > 0) std::memcpy(request->header.data(), data, head);
  request->payload.assign(reinterpret_cast<const char*>(data) + head, size - head);
  const std::string before(request->header.data(), CorvdHeader::kSize);
  const auto built = BuildVifRequest(request);
  if (built->op_id.size() > 256 || built->vif_id.size() > 458 || built->ls_id.size() > 256) std::abort();
  if (built->gcf_path.size() > 256) std::abort();
  const bool port_operation = built->op_code != VifRequest::kUnsupported;
  if (port_operation && static_cast<uint32_t>(built->op_code) != request->header.opcode()) std::abort();
  if (built->error_text.empty() == (port_operation && request->payload.empty())) std::abort();
  if (CorvdOpcodeName(request->header.opcode()) == nullptr) std::abort();
  request->header.SetResult(CorvdHeader::kTimeout, 7);
  if (std::memcmp(before.data(), request->header.data(), 276) != 0) std::abort();
  if (request->header.status() != CorvdHeader::kTimeout || request->header.payload_size() != 7) std::abort();
  return built->ToString().empty() ? 1 : 0;
}
