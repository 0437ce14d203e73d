#pragma once

#include <time.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "sim/switch/tree/fault_rules.h"

/// Marks the functions that the shared object exports; all others are hidden.
#define ZEM_SIM_EXPORT extern "C" __attribute__((visibility("default")))

namespace zem::sim {

/// One call of a library: applies the faults when it begins, and writes a line to the log of calls when it
/// ends.
class LibraryCall {
 public:
  explicit LibraryCall(const CallSubject& subject);
  ~LibraryCall();
  LibraryCall(const LibraryCall&) = delete;
  LibraryCall& operator=(const LibraryCall&) = delete;

  /// True when a fault replaces the call: `result()` and errno are then set.
  bool fails() const { return fails_; }
  uint32_t result() const { return result_; }
  int error_number() const { return error_number_; }

  /// Records the result and returns it.
  uint32_t Result(uint32_t result) { return result_ = result; }
  void SetLength(uint32_t length) { length_ = length; }

 private:
  const CallSubject subject_;
  timespec start_{};
  uint32_t result_ = 0;
  uint32_t length_ = 0;
  int error_number_ = 0;
  bool fails_ = false;
};

/// Logs that the caller broke a rule of the library.
void Violation(const char* function, std::string_view what);

}  // namespace zem::sim
