#include "app/ctxteng/kafka/broker_states.h"

#include <algorithm>

namespace Ctxt::PaceClient {
namespace {

constexpr std::string_view kBrokers = "\"brokers\"";
constexpr std::string_view kTopics = "\"topics\"";
constexpr std::string_view kState = "\"state\":";

}  // namespace

BrokerStates ReadBrokerStates(std::string_view statistics) {
  BrokerStates states;
  const size_t begin = statistics.find(kBrokers);
  if (begin == std::string_view::npos) return states;
  std::string_view brokers = statistics.substr(begin + kBrokers.size());
  // The brokers come before the topics, which have states of their own.
  brokers = brokers.substr(0, brokers.find(kTopics));
  bool first = true;
  for (size_t at = brokers.find(kState); at != std::string_view::npos; at = brokers.find(kState, at)) {
    at += kState.size();
    std::string state(brokers.substr(at, brokers.find(',', at) - at));
    std::erase(state, '"');
    states.any_up = states.any_up || state == "UP";
    if (first) states.first = std::move(state);
    first = false;
  }
  return states;
}

}  // namespace Ctxt::PaceClient
