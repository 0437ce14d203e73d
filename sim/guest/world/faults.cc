#include "sim/guest/world/faults.h"

#include "platform/endvat/endvat.h"

namespace zem::sim::guest {
namespace {

void SetPointers(Buffer& buffer, uint64_t value) {
  for (const uint32_t at : buffer.pointers) buffer.Put<uint64_t>(at, value);
  buffer.pointers.clear();
}

void SpoilBuffer(Garbage garbage, Operation operation, Buffer& buffer) {
  const auto put_if_there = [&](size_t at, uint32_t value) {
    if (at + 4 <= buffer.bytes.size()) buffer.Put<uint32_t>(at, value);
  };
  switch (garbage) {
    case Garbage::kShort:
      buffer.bytes.resize(buffer.bytes.size() / 2);
      std::erase_if(buffer.pointers, [&](uint32_t at) { return at + 8 > buffer.bytes.size(); });
      break;
    case Garbage::kNullPointer:
      SetPointers(buffer, 0);
      break;
    case Garbage::kWildPointer:
      SetPointers(buffer, 0x1000);
      break;
    case Garbage::kHugeLength:
      for (const uint32_t at : buffer.pointers) {
        if (at >= 4) buffer.Put<uint32_t>(at - 4, 0xfffffff0);
      }
      break;
    case Garbage::kAddressType:
      put_if_there(operation == Operation::kNetworkEvent ? 4 : 40, 7);
      if (operation == Operation::kNetworkEvent) put_if_there(26, 7);
      break;
    case Garbage::kCount:
      put_if_there(0, 0xffffffff);
      break;
    case Garbage::kNoTerminator:
      if (!buffer.bytes.empty() && buffer.bytes.back() == '\0') buffer.bytes.pop_back();
      break;
    case Garbage::kNone:
    case Garbage::kZero:
    case Garbage::kGrow:
      break;
  }
}

}  // namespace

void Faults::Spoil(const Question& question, const std::string& guest, Answer* answer) {
  const uint32_t call = question.capacity == 0 ? 1 : 2;
  for (Fault& fault : faults_) {
    if (fault.operation != question.operation || (!fault.guest.empty() && fault.guest != guest)) continue;
    if (fault.call != 0 && fault.call != call) continue;
    if (fault.garbage == Garbage::kZero && call != 1) continue;
    if (fault.garbage == Garbage::kGrow && call != 2) continue;
    const uint32_t seen = fault.seen++;
    if (seen < fault.skip || (fault.times != 0 && seen >= fault.skip + fault.times)) continue;
    answer->delay_ms = fault.delay_ms;
    if (fault.status != 0) {
      answer->status = fault.status;
      answer->buffer = Buffer();
    } else if (fault.garbage == Garbage::kZero) {
      answer->buffer = Buffer();
    } else if (fault.garbage == Garbage::kGrow) {
      answer->status = ENDVAT_ERROR_BUFFER_TOO_SMALL;
    } else {
      SpoilBuffer(fault.garbage, question.operation, answer->buffer);
    }
    return;
  }
}

}  // namespace zem::sim::guest
