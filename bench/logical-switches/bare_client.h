#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/core/unique_fd.h"
#include "platform/knluser/knluser.h"

namespace zem::bench {

/// One call to the management proxy.
struct Call {
  uint32_t operation;
  std::string data;
};

/// Starts the management proxy, sends calls and reads their answers, and does nothing else.  Its time is the
/// time that the proxy needs.
class BareClient {
 public:
  /// Throws std::runtime_error when the proxy does not start or does not become ready.
  BareClient(const std::string& script, const std::string& socket);
  ~BareClient();
  BareClient(const BareClient&) = delete;
  BareClient& operator=(const BareClient&) = delete;

  /// Seconds for all calls, one after another.  Throws when one fails.
  double Send(const std::vector<Call>& calls);

 private:
  void Connect(const std::string& socket);
  void LogIn();
  std::string Ask(const std::string& command);
  /// Returns the status; `reply` receives the text.
  uint32_t Exchange(const Call& call, std::string* reply);
  void WriteAll(const void* data, size_t size);
  void ReadAll(void* data, size_t size);

  KnluserCompat_Pipe script_{-1, -1};
  UniqueFd socket_;
};

}  // namespace zem::bench
