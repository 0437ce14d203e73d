// The origin of the bytes in the store and in the files is unknown: any bytes must be read completely or
// refused.

#include <cstdint>
#include <string>

#include "app/zema/covedb/host_config_codec.h"
#include "app/zema/covedb/logical_switch_codec.h"
#include "proto/covedb/switching_objects.pb.h"
#include "proto/switching/switching.pb.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zem::zema;
  namespace store = orlane::zem::covedb;
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  store::RealizedHostConfigMsg stored;
  if (stored.ParseFromString(bytes)) {
    orlane::zem::switching::HostConfigMsg config;
    std::string correlation_id;
    std::string reply_to;
    store::RealizedHostConfigMsg again;
    (void)DecodeHostConfigMsg(stored, &config, &correlation_id, &reply_to);
    (void)EncodeHostConfigMsg(config, &again);
  }
  // The headers alone, which are not a protobuf message.
  store::RealizedHostConfigMsg headers;
  headers.mutable_amqp_header()->set_header(bytes);
  orlane::zem::switching::HostConfigMsg config;
  std::string correlation_id;
  std::string reply_to;
  (void)DecodeHostConfigMsg(headers, &config, &correlation_id, &reply_to);
  store::OpaqueLogSwitchConfigMsg log_switch;
  if (log_switch.ParseFromString(bytes)) {
    store::OpaqueLogSwitchConfigOpMsg op;
    op.set_operation(size % 16);
    orlane::zem::switching::LogicalSwitchMsg out;
    DecodeOpaqueLogSwitchMsg(log_switch, op, log_switch, &out);
  }
  return 0;
}
