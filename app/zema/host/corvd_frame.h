#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace zem::zema {

struct VifRequest;

/// The header of a frame of the host management daemon, in the host's byte order.  A reply reuses the
/// request's header, so fields that the agent does not interpret are returned unchanged.
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
  /// The text up to its zero, or the whole field when there is none.
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

/// One request as received.  It lives as long as a VifRequest refers to it.
struct CorvdRequest {
  CorvdHeader header;
  std::string payload;
  /// The number of the connection on which the request came; the reply goes only to that one.
  uint64_t connection = 0;
};

/// A header that announces a longer payload is treated as damaged.
inline constexpr uint32_t kLongestCorvdPayload = 1 << 20;
/// The first opcode number that is not one of the host's.
inline constexpr uint32_t kCorvdOpcodeEnd = 14;

const char* CorvdOpcodeName(uint32_t opcode);
const char* CorvdStatusName(uint32_t status);

/// Reads the VIF, the logical switch, the VM's path and the trace from a port operation's payload.  Fields
/// beyond the end of a short payload are empty.
void UnpackVifPayload(std::string_view payload, VifRequest* out);

/// Builds the operation that the daemon requests.  A port operation without payload gets an error text; a
/// request that is no port operation has the kind kUnsupported.
std::shared_ptr<VifRequest> BuildVifRequest(std::shared_ptr<CorvdRequest> request);

}  // namespace zem::zema
