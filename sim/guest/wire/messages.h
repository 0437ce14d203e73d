#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "sim/guest/wire/buffer.h"

namespace zem::sim::guest {

/// What the library asks of the multiplexer and its guests.
enum class Operation : uint32_t {
  kVmId,
  kLogonSessions,
  kSolutionId,
  kHealthStatus,
  kSystemInfo,
  kSessionInfo,
  kProcessInfo,
  kNetworkEvent,
  kNetworkEventInformation,
  kSystemEventInformation,
  kSidInfo,
  kUidInfo,
  kGidInfo,
  kSetData,
  kGetMask,
  kSetMask,
  kConfigureMux,
  /// One way: a callback has returned.  `number` is its verdict.
  kDone,
  /// One way: the caller broke the library's rules; `text` says how.
  kViolation,
  /// The first message of a connection that carries events instead of questions.  `number` is the bound of
  /// undelivered network events of a guest.
  kEvents,
};
inline constexpr uint32_t kOperations = static_cast<uint32_t>(Operation::kEvents) + 1;

/// The call's name as the library exports it.
const char* OperationName(Operation operation);

struct Question {
  Operation operation = Operation::kVmId;
  uint64_t guest = 0;
  uint64_t event = 0;
  uint32_t kind = 0;
  uint64_t number = 0;
  uint64_t number2 = 0;
  /// The caller's buffer; 0 is the first of the two calls.
  uint32_t capacity = 0;
  std::string text;
};

struct Answer {
  uint32_t status = 0;
  /// How long the library is to hold the answer back.
  uint32_t delay_ms = 0;
  /// The configuration's mask.
  uint64_t number = 0;
  Buffer buffer;
};

/// What happens to a guest or to the multiplexer.
struct Event {
  enum class Kind : uint32_t { kPowerOn, kPowerOff, kNetwork, kSystem, kTimer, kMux, kError, kPanic };
  Kind kind = Kind::kTimer;
  uint64_t guest = 0;
  /// Names the guest's run: a guest that is announced again has a new one.
  uint64_t run = 0;
  uint64_t number = 0;
  uint32_t type = 0;
};

/// The messages as bytes, without the length that goes before each on the socket.
std::string Encode(const Question& question);
std::string Encode(const Answer& answer);
std::string Encode(const Event& event);
/// Nothing when the bytes are not such a message.
std::optional<Question> DecodeQuestion(std::string_view bytes);
std::optional<Answer> DecodeAnswer(std::string_view bytes);
std::optional<Event> DecodeEvent(std::string_view bytes);

/// Largest message on the socket.
inline constexpr uint32_t kMaxMessage = 16u << 20;
/// Writes the length and the bytes.  False when the peer is gone or does not read.
[[nodiscard]] bool WriteMessage(int fd, std::string_view bytes);
/// Nothing when the peer is gone, is silent for longer than the socket's time-out, or sends too much.
std::optional<std::string> ReadMessage(int fd);

}  // namespace zem::sim::guest
