#include "app/ctxteng/idsevents/ids_counters.h"

namespace IdsEvtEng {

void IdsCounters::ForEach(const std::function<void(std::string_view name, Counter& counter)>& visit) {
  visit("total", total);
  visit("critical", critical);
  visit("non-critical", non_critical);
  visit("proto-sent-mp", manager.proto_sent);
  visit("proto-dropped-mp", manager.proto_dropped);
  visit("alert-sent-mp", manager.alert_sent);
  visit("alert-dropped-mp", manager.alert_dropped);
  visit("dropped-q", dropped_queue);
  visit("proto-sent-kafka", kafka.proto_sent);
  visit("proto-dropped-kafka", kafka.proto_dropped);
  visit("alert-sent-kafka", kafka.alert_sent);
  visit("alert-dropped-kafka", kafka.alert_dropped);
  visit("dropped-kafka-q", dropped_kafka_queue);
  visit("pcap-alert-total", pcap_total);
  visit("pcap-critical", pcap_critical);
  visit("pcap-non-critical", pcap_non_critical);
  visit("pcap-proto-sent-mp", pcap_manager.proto_sent);
  visit("pcap-proto-dropped-mp", pcap_manager.proto_dropped);
  visit("pcap-alert-sent-mp", pcap_manager.alert_sent);
  visit("pcap-alert-dropped-mp", pcap_manager.alert_dropped);
  visit("pcap-dropped-q", pcap_dropped_queue);
  visit("pcap-proto-sent-kafka", pcap_kafka.proto_sent);
  visit("pcap-proto-dropped-kafka", pcap_kafka.proto_dropped);
  visit("pcap-alert-sent-kafka", pcap_kafka.alert_sent);
  visit("pcap-alert-dropped-kafka", pcap_kafka.alert_dropped);
  visit("pcap-sent-kafka-succeed", deliveries.succeeded);
  visit("pcap-sent-kafka-failed", deliveries.failed);
}

void IdsCounters::Clear() {
  ForEach([](std::string_view, Counter& counter) { counter = 0; });
}

IdsCounters& IdsCounters::Process() {
  static auto& counters = *new IdsCounters();
  return counters;
}

}  // namespace IdsEvtEng
