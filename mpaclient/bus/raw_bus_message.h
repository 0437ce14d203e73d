#pragma once

#include <string>

namespace zem {

/// A message of the manager as it came, for who keeps it.
struct RawBusMessage {
  /// "com.orlane.zem.switching.HostConfigMsg" and so on.
  std::string type;
  /// BSON.
  std::string header;
  std::string payload;
  std::string correlation_id;
  std::string reply_to;
};

}  // namespace zem
