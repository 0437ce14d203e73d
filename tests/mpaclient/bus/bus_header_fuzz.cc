// The header of a record comes from other processes: any bytes must be decoded or refused without reading
// past their end, and a decoded header must survive encoding and decoding.

#include <cstdint>
#include <cstdlib>
#include <span>

#include "mpaclient/bus/bus_record.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using zem::BusHeader;
  const auto header = BusHeader::Decode({data, size});
  if (!header) return 0;
  const auto again = BusHeader::Decode(header->Encode());
  if (!again || again->type_id != header->type_id || again->correlation_id != header->correlation_id ||
      again->reply_to != header->reply_to || again->msg_class != header->msg_class ||
      again->message_id != header->message_id) {
    std::abort();
  }
  if (header->msg_class.empty() && again->msg_type != header->msg_type) std::abort();
  return 0;
}
