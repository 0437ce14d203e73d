#include "platform/rpc/wire/frame.h"

#include <array>

namespace zem::rpc {
namespace {

struct Rule {
  FrameType type;
  uint32_t limit;
  uint8_t flags;
  bool has_channel;
  bool has_call;
};
constexpr std::array kRules = {
    Rule{FrameType::kHello, kHelloLimit, 0, false, false},
    Rule{FrameType::kIds, kControlLimit, 0, false, false},
    Rule{FrameType::kOpen, kControlLimit, 0, true, false},
    Rule{FrameType::kOpened, 0, 0, true, false},
    Rule{FrameType::kClose, 0, 0, true, false},
    Rule{FrameType::kCall, kDataLimit, kFlagLast | kFlagHeaders | kFlagNoMessage, true, true},
    Rule{FrameType::kMessage, kDataLimit, kFlagLast | kFlagNoMessage, true, true},
    Rule{FrameType::kEnd, kDataLimit, kFlagText | kFlagNoMessage, true, true},
    Rule{FrameType::kCancel, 0, 0, true, true},
    Rule{FrameType::kPing, 0, 0, false, false},
    Rule{FrameType::kPong, 0, 0, false, false},
};
constexpr bool RulesStandInOrder() {
  for (size_t i = 0; i < kRules.size(); ++i) {
    if (static_cast<size_t>(kRules[i].type) != i + 1) return false;
  }
  return true;
}
static_assert(RulesStandInOrder());

}  // namespace

void EncodeFrameHeader(const FrameHeader& header, char* out) {
  PutU32(out, header.length);
  out[4] = static_cast<char>(header.type);
  out[5] = static_cast<char>(header.flags);
  PutU16(out + 6, header.code);
  PutU32(out + 8, header.channel);
  PutU32(out + 12, header.call);
}

const char* DecodeFrameHeader(const char* data, FrameHeader* header) {
  const auto type = static_cast<unsigned char>(data[4]);
  header->length = GetU32(data);
  header->type = static_cast<FrameType>(type);
  header->flags = static_cast<uint8_t>(data[5]);
  header->code = GetU16(data + 6);
  header->channel = GetU32(data + 8);
  header->call = GetU32(data + 12);
  if (type == 0 || type > kRules.size()) return "unknown frame type";
  const Rule& rule = kRules[type - 1];
  if (header->length > rule.limit) return "payload over the limit";
  if ((header->flags & ~rule.flags) != 0) return "unknown flag";
  if ((header->channel != 0) != rule.has_channel) return "channel id missing or misplaced";
  if ((header->call != 0) != rule.has_call) return "call id missing or misplaced";
  return nullptr;
}

}  // namespace zem::rpc
