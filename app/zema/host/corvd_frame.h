#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace zem::zema {

struct VifRequest;

/// The head of a frame of the host management daemon, in the host's byte order.  A reply carries the
/// request's own, so what is not understood here goes back as it came.
class CorvdHeader {
 public:
  static constexpr size_t kSize = 284;
  static constexpr uint32_t kMagic = 0x35AE;
  static constexpr uint32_t kVersion = 1;

  enum Status : uint32_t {
    kSuccess = 0,
    kFailure = 1,
    kNotSupported = 2,
    kVersionMismatched = 3,
    kTimeout = 4,
  };

  uint32_t magic() const { return FieldAt(kMagicAt); }
  uint32_t version() const { return FieldAt(kVersionAt); }
  /// Up to its zero, or the whole field.
  std::string op_id() const;
  uint32_t opcode() const { return FieldAt(kOpcodeAt); }
  uint32_t status() const { return FieldAt(kStatusAt); }
  uint32_t payload_size() const { return FieldAt(kPayloadSizeAt); }
  void SetResult(Status status, uint32_t payload_size);

  char* data() { return bytes_.data(); }
  const char* data() const { return bytes_.data(); }

 private:
  static constexpr size_t kMagicAt = 0;
  static constexpr size_t kVersionAt = 4;
  static constexpr size_t kOpIdAt = 16;
  static constexpr size_t kOpIdSize = 256;
  static constexpr size_t kOpcodeAt = 272;
  static constexpr size_t kStatusAt = 276;
  static constexpr size_t kPayloadSizeAt = 280;

  uint32_t FieldAt(size_t offset) const;

  std::array<char, kSize> bytes_{};
};

/// One request as it came; lives as long as a VifRequest refers to it.
struct CorvdRequest {
  CorvdHeader header;
  std::string payload;
  /// Which connection it came on: no other gets the reply.
  uint64_t connection = 0;
};

/// Beyond it a header is taken for damaged.
inline constexpr uint32_t kLongestCorvdPayload = 1 << 20;
/// The first number beyond the host's operations.
inline constexpr uint32_t kCorvdOpcodeEnd = 14;

const char* CorvdOpcodeName(uint32_t opcode);
const char* CorvdStatusName(uint32_t status);

/// Fills the VIF, the logical switch, the VM's path and the trace from a port operation's payload; what lies
/// beyond a short one is empty.
void UnpackVifPayload(std::string_view payload, VifRequest* out);

/// The operation that the daemon asks for.  A port operation without payload has its error text set; what is
/// not a port operation is of no kind.
std::shared_ptr<VifRequest> BuildVifRequest(std::shared_ptr<CorvdRequest> request);

}  // namespace zem::zema
