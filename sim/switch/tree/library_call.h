#pragma once

#include <time.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "sim/switch/tree/fault_rules.h"

/// Functions of the libraries: only these leave the shared object.
#define ZEM_SIM_EXPORT extern "C" __attribute__((visibility("default")))

namespace zem::sim {

/// One call of a library: waits as the faults say when it begins, and is in the log of calls when it ends.
class LibraryCall {
 public:
  explicit LibraryCall(const CallSubject& subject);
  ~LibraryCall();
  LibraryCall(const LibraryCall&) = delete;
  LibraryCall& operator=(const LibraryCall&) = delete;

  /// A fault takes the call's place: then `result()` and errno are set.
  bool fails() const { return fails_; }
  uint32_t result() const { return result_; }
  int error_number() const { return error_number_; }

  /// Notes the outcome and gives it.
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

/// A rule of the library that its caller broke.
void Violation(const char* function, std::string_view what);

}  // namespace zem::sim
