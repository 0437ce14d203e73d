#include "platform/rpc/link/call_host.h"

#include <utility>

namespace zem::rpc {

void CallHost::AddCall(CallState& call) {
  ++calls_;
  if (deadlines_.Insert(call)) ArmTimer();
}

void CallHost::RemoveCall(CallState& call) {
  --calls_;
  deadlines_.Remove(call);
}

std::vector<std::shared_ptr<CallState>> CallHost::ExpireCalls(TimePoint now) {
  std::vector<std::shared_ptr<CallState>> expired;
  while (deadlines_.first() <= now) expired.push_back(deadlines_.front()->Expire());
  return expired;
}

void CallHost::ReportEnd(std::shared_ptr<EndReceiver> call, Status status) {
  ended_.push_back({std::move(call), std::move(status), false});
  PostEnds();
}

void CallHost::ReportChannelEnd(std::shared_ptr<EndReceiver> channel, Status status) {
  ended_.push_back({std::move(channel), std::move(status), true});
  PostEnds();
}

void CallHost::PostEnds() {
  if (std::exchange(ended_posted_, true)) return;
  strand()->Post([self = std::static_pointer_cast<CallHost>(shared_from_this())] { self->DeliverEnds(); });
}

void CallHost::DeliverEnds() {
  std::vector<Ended> ended;
  {
    Lock lock(mutex());
    ended_posted_ = false;
    ended.swap(ended_);
  }
  bool channel_ended = false;
  for (Ended& entry : ended) {
    channel_ended = channel_ended || entry.channel;
    try {
      entry.receiver->ReceiveEnd(entry.status);
    } catch (const std::exception& error) {
      LogThrown(error);
    }
  }
  if (channel_ended) ChannelsEnded();
}

}  // namespace zem::rpc
