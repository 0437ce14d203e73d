#include "mpaclient/verticals.h"

#include <gmock/gmock.h>
#include <google/protobuf/message.h>

#include "mpaclient/unified_layout.h"

namespace zem {
namespace {

// The members of a unified message that a vertical may fill, by the name of the type.
TEST(UnifiedLayoutTest, OnlyWhatAVerticalSendsHasAMember) {
  struct Case {
    VerticalId vertical;
    const char* type;
    const char* member;  // null: it cannot be sent
  };
  for (const Case& c : {
           Case{VerticalId::kTraceflow, "com.orlane.zem.traceflow.Traceflow.TraceflowPacketInRequestMsg",
                "orlane.zem.traceflow.TraceflowPacketInRequestMsg"},
           Case{VerticalId::kTraceflow, "com.orlane.zem.traceflow.Traceflow.TraceflowPacketOutRequestMsg",
                nullptr},
           Case{VerticalId::kLivetrace, "com.orlane.zem.livetrace.Livetrace.LivetraceMsg", nullptr},
           Case{VerticalId::kIpReputation, kAppInitType, "orlane.zem.messaging.appinit.AppInitMsg"},
           Case{VerticalId::kLldp, kAppInitType, "orlane.zem.messaging.RawPayloadMsg"},
           Case{VerticalId::kSwitching, "com.orlane.zem.switching.Unheard", nullptr},
       }) {
    const UnifiedLayout& layout = UnifiedLayout::Of(GetVertical(c.vertical));
    const auto unified = layout.NewMp(c.type);
    const auto* const member = layout.MutableMpMember(unified.get(), c.type);
    EXPECT_EQ(member == nullptr ? "none" : member->GetTypeName(), c.member == nullptr ? "none" : c.member)
        << c.type;
  }
}

}  // namespace
}  // namespace zem
