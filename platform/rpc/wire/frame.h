#pragma once

#include <cstddef>
#include <cstdint>

namespace zem::rpc {

/// Kinds of frames; README.md describes what each carries.
enum class FrameType : uint8_t {
  kHello = 1,
  kIds = 2,
  kOpen = 3,
  kOpened = 4,
  kClose = 5,
  kCall = 6,
  kMessage = 7,
  kEnd = 8,
  kCancel = 9,
  kPing = 10,
  kPong = 11,
};

/// Of the HELLO.
constexpr uint32_t kMagic = 0x5a454d31;
constexpr uint32_t kVersion = 1;

/// The last message of this side.
constexpr uint8_t kFlagLast = 1;
/// CALL: headers stand before the message.
constexpr uint8_t kFlagHeaders = 2;
/// END: the status text stands before the message.
constexpr uint8_t kFlagText = 4;
/// There is no message (an empty one is something else).
constexpr uint8_t kFlagNoMessage = 8;

constexpr size_t kFrameHeaderSize = 16;
/// What a host with 100,000 objects reports in one message.
constexpr uint32_t kDataLimit = 64 << 20;
constexpr uint32_t kControlLimit = 1 << 20;
constexpr uint32_t kHelloLimit = 64 << 10;
constexpr uint32_t kHeadersLimit = 64 << 10;
constexpr int kIdsLimit = 1024;
constexpr size_t kCallsLimit = 65536;
constexpr size_t kChannelsLimit = 4096;
/// Above this much unsent, writes are refused; above four times as much and a message, the peer is given up.
constexpr size_t kUnsentLimit = 16 << 20;
constexpr size_t kUnsentResume = kUnsentLimit / 2;
constexpr size_t kUnsentGiveUp = 4 * kUnsentLimit + kDataLimit;
/// How far a batch serializes ahead of the socket.
constexpr size_t kBatchAhead = 256 << 10;

struct FrameHeader {
  uint32_t length = 0;
  FrameType type = FrameType::kPing;
  uint8_t flags = 0;
  uint16_t code = 0;  // method of a CALL, status of an OPENED or END, reason of a CLOSE
  uint32_t channel = 0;
  uint32_t call = 0;
};

inline void PutU16(char* out, uint16_t value) {
  out[0] = static_cast<char>(value >> 8);
  out[1] = static_cast<char>(value);
}
inline void PutU32(char* out, uint32_t value) {
  PutU16(out, static_cast<uint16_t>(value >> 16));
  PutU16(out + 2, static_cast<uint16_t>(value));
}
inline uint16_t GetU16(const char* data) {
  return static_cast<uint16_t>(static_cast<unsigned char>(data[0]) << 8 |
                               static_cast<unsigned char>(data[1]));
}
inline uint32_t GetU32(const char* data) {
  return static_cast<uint32_t>(GetU16(data)) << 16 | GetU16(data + 2);
}

/// Writes kFrameHeaderSize bytes.
void EncodeFrameHeader(const FrameHeader& header, char* out);

/// Reads kFrameHeaderSize bytes.  Null when the header is one that the protocol knows, else what is wrong
/// with it.
const char* DecodeFrameHeader(const char* data, FrameHeader* header);

}  // namespace zem::rpc
