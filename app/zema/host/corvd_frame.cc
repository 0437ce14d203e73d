#include "app/zema/host/corvd_frame.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "app/zema/ports/vif_request.h"

namespace zem::zema {
namespace {

constexpr const char* kOpcodeNames[] = {
    nullptr,
    "ATTACH_PORT",
    "DETACH_PORT",
    "ADD_NETWORK",
    "REMOVE_NETWORK",
    "SET_NETWORK",
    "UPDATE_NETWORK",
    "VNIC_UUID_CHANGE",
    "ATTACH_PORT_TO_VIF_UUID",
    "ATTACH_PORT_LIVEMOVE",
    "DETACH_PORT_LIVEMOVE",
};

constexpr const char* kStatusNames[] = {
    "NETWORK_OP_SUCCESS",       "NETWORK_OP_FAILURE",
    "NETWORK_OP_NOT_SUPPORTED", "NETWORK_OP_IPC_VERSION_MISMATCHED",
    "NETWORK_OP_TIMEOUT",
};

// The payload of a port operation.
constexpr size_t kVifAt = 0;
constexpr size_t kNetworkAt = 458;
constexpr size_t kGcfPathAt = 714;
constexpr size_t kTraceAt = 970;
constexpr size_t kTraceIdAt = 978;
constexpr size_t kSpanIdAt = 994;
constexpr size_t kTraceEnd = 1010;
constexpr uint32_t kTraceMarkers[] = {1, 160};

constexpr char kHostInterface[] = "knlnic";
constexpr char kMissingPayload[] = "missing payload in a vif request";

std::string TextAt(std::string_view bytes, size_t offset, size_t size) {
  if (offset >= bytes.size()) return {};
  const std::string_view field = bytes.substr(offset, size);
  return std::string(field.substr(0, field.find('\0')));
}

template <class Number>
Number NumberAt(std::string_view bytes, size_t offset) {
  Number value = 0;
  std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}

bool IsPortOperation(uint32_t opcode) {
  constexpr int32_t kKinds[] = {VifRequest::kAttach, VifRequest::kDetach, VifRequest::kAttachToVifUuid,
                                VifRequest::kAttachLiveMove, VifRequest::kDetachLiveMove};
  return std::any_of(std::begin(kKinds), std::end(kKinds),
                     [opcode](int32_t kind) { return static_cast<uint32_t>(kind) == opcode; });
}

}  // namespace

std::string CorvdHeader::op_id() const {
  return TextAt(std::string_view(bytes_.data(), bytes_.size()), kOpIdAt, kOpIdSize);
}

void CorvdHeader::SetResult(Status status, uint32_t payload_size) {
  const uint32_t value = status;
  std::memcpy(bytes_.data() + kStatusAt, &value, sizeof(value));
  std::memcpy(bytes_.data() + kPayloadSizeAt, &payload_size, sizeof(payload_size));
}

uint32_t CorvdHeader::FieldAt(size_t offset) const {
  return NumberAt<uint32_t>(std::string_view(bytes_.data(), bytes_.size()), offset);
}

const char* CorvdOpcodeName(uint32_t opcode) {
  return opcode > 0 && opcode < std::size(kOpcodeNames) ? kOpcodeNames[opcode] : "unknown op code";
}

const char* CorvdStatusName(uint32_t status) {
  return status < std::size(kStatusNames) ? kStatusNames[status] : "unknown result code";
}

void UnpackVifPayload(std::string_view payload, VifRequest* out) {
  out->vif_id = TextAt(payload, kVifAt, kNetworkAt - kVifAt);
  out->ls_id = TextAt(payload, kNetworkAt, kGcfPathAt - kNetworkAt);
  out->gcf_path = TextAt(payload, kGcfPathAt, kTraceAt - kGcfPathAt);
  if (out->gcf_path.empty()) out->gcf_path = kHostInterface;
  if (payload.size() < kTraceEnd || NumberAt<uint32_t>(payload, kTraceAt) != kTraceMarkers[0] ||
      NumberAt<uint32_t>(payload, kTraceAt + sizeof(uint32_t)) != kTraceMarkers[1]) {
    return;
  }
  // The high half comes first; the agent's ids have the length of the low half.
  out->trace.trace_id = NumberAt<uint64_t>(payload, kTraceIdAt + sizeof(uint64_t));
  out->trace.span_id = NumberAt<uint64_t>(payload, kSpanIdAt + sizeof(uint64_t));
}

std::shared_ptr<VifRequest> BuildVifRequest(std::shared_ptr<CorvdRequest> request) {
  auto built = std::make_shared<VifRequest>();
  built->op_id = request->header.op_id();
  if (const uint32_t opcode = request->header.opcode(); IsPortOperation(opcode)) {
    built->op_code = static_cast<int32_t>(opcode);
    built->host_op_code = built->op_code;
    if (request->payload.empty()) {
      built->error_text = kMissingPayload;
    } else {
      UnpackVifPayload(request->payload, built.get());
    }
  }
  built->request = std::move(request);
  return built;
}

}  // namespace zem::zema
