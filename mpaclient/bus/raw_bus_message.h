#pragma once

#include <string>

namespace zem {

/// A message of the manager as it was received, for storing it.
struct RawBusMessage {
  /// The full name of the message, such as "com.orlane.zem.switching.HostConfigMsg".
  std::string type;
  /// The header document in BSON.
  std::string header;
  std::string payload;
  std::string correlation_id;
  std::string reply_to;
};

}  // namespace zem
