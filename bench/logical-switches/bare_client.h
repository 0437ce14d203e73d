#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/core/unique_fd.h"

namespace zem::bench {

/// One call to the management proxy.
struct Call {
  uint32_t operation;
  std::string data;
};

/// Sends calls and reads their answers; nothing else.  What it needs is what the proxy needs.
class BareClient {
 public:
  /// Throws std::runtime_error when the socket cannot be reached.
  explicit BareClient(const std::string& socket);

  /// Seconds for all calls, one after another.  Throws when one fails.
  double Send(const std::vector<Call>& calls);

 private:
  void WriteAll(const void* data, size_t size);
  void ReadAll(void* data, size_t size);

  UniqueFd socket_;
};

}  // namespace zem::bench
