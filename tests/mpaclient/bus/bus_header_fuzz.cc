// The header of a record comes from other processes: any bytes must be read or refused, within their length,
// and what was read must come back from what is written of it.

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
