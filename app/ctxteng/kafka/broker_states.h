#pragma once

#include <string>
#include <string_view>

namespace Ctxt::PaceClient {

/// What the library's statistics say about its brokers.
struct BrokerStates {
  /// The state of the first broker listed; empty when the text has none.
  std::string first;
  bool any_up = false;
};

/// Reads the JSON text of librdkafka's statistics.
BrokerStates ReadBrokerStates(std::string_view statistics);

}  // namespace Ctxt::PaceClient
