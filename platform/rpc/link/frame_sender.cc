#include "platform/rpc/link/frame_sender.h"

#include <google/protobuf/message_lite.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/core/lib_log.h"
#include "platform/metrics/process_metrics.h"

// The idea: every thread serializes its frames into one buffer under one mutex.  A thread that then finds
// no other one writing takes the whole buffer to the socket.  Inside callbacks that is done once, when
// they are through; from other threads at once when the line was quiet, else by the strand, so that a burst
// becomes one write.

namespace zem::rpc {
namespace {

// Within callbacks: what has gathered goes out early when it is this much.
constexpr size_t kGatherLimit = 64 << 10;
// Two direct writes of one thread closer than this are a burst.
constexpr Duration kBurst = std::chrono::microseconds(20);

}  // namespace

FrameSender::FrameSender(std::shared_ptr<ByteStream> stream, std::shared_ptr<Strand> strand)
    : strand_(std::move(strand)),
      text_(stream->text()),
      stream_(std::move(stream)),
      last_sent_(Clock::Process().Now()),
      last_taken_(last_sent_) {}

void FrameSender::LogThrown(const std::exception& error) const {
  ZEM_LIB_LOG(Library::kRpc, kLogError, "%s: a callback threw: %s", text_.c_str(), error.what());
}

char* FrameSender::AppendFrame(FrameHeader header) {
  if (given_up_ || ended_) DropUnsent();
  char* const out = pending_.Extend(kFrameHeaderSize + header.length);
  if (unsent() > kUnsentLimit) [[unlikely]]
    LimitUnsent();
  EncodeFrameHeader(header, out);
  return out + kFrameHeaderSize;
}

bool FrameSender::AppendMessage(FrameHeader header, std::string_view prefix,
                                const google::protobuf::MessageLite* message) {
  const size_t body = message == nullptr ? 0 : message->ByteSizeLong();
  if (prefix.size() + body > kDataLimit) return false;
  header.length = static_cast<uint32_t>(prefix.size() + body);
  char* const out = AppendFrame(header);
  if (!prefix.empty()) std::memcpy(out, prefix.data(), prefix.size());
  if (message != nullptr)
    message->SerializeWithCachedSizesToArray(reinterpret_cast<uint8_t*>(out + prefix.size()));
  return true;
}

void FrameSender::AppendControl(FrameType type, uint32_t channel, uint32_t call, uint16_t code) {
  FrameHeader header;
  header.type = type;
  header.code = code;
  header.channel = channel;
  header.call = call;
  AppendFrame(header);
}

void FrameSender::AppendEnd(uint32_t channel, uint32_t call, const Status& status) {
  FrameHeader header;
  header.type = FrameType::kEnd;
  header.flags = kFlagNoMessage;
  header.channel = channel;
  header.call = call;
  std::string text = status.text();
  if (status.code() < 0 || status.code() > UINT16_MAX) {
    header.code = static_cast<uint16_t>(StatusCode::kInternal);
    text = "status " + std::to_string(status.code()) + " " + text;
  } else {
    header.code = static_cast<uint16_t>(status.code());
  }
  if (text.empty()) {
    AppendFrame(header);
    return;
  }
  text.resize(std::min<size_t>(text.size(), UINT16_MAX));
  header.flags |= kFlagText;
  header.length = static_cast<uint32_t>(2 + text.size());
  char* const out = AppendFrame(header);
  PutU16(out, static_cast<uint16_t>(text.size()));
  std::memcpy(out + 2, text.data(), text.size());
}

// Over the first limit the reading stops; over the last one the connection ends, whoever appended.
void FrameSender::LimitUnsent() {
  if (!over_limit_.exchange(true)) metrics::CounterOf(metrics::MetricId::kRpcLimits, "unsent").Add();
  if (unsent() <= kUnsentGiveUp || std::exchange(given_up_, true)) return;
  ZEM_LIB_LOG(Library::kNet, kLogWarning, "%s: the peer does not read, giving it up", text_.c_str());
  CloseSoon(CloseReason::kConnectionLost);
}

// The bytes that a thread is writing to the socket right now are dropped by that thread.
void FrameSender::DropUnsent() {
  pending_.Clear();
  if (!in_write_) active_.Clear();
}

std::shared_ptr<ByteStream> FrameSender::EndSending() {
  ended_ = true;
  batches_.clear();
  DropUnsent();
  return std::exchange(stream_, nullptr);
}

void FrameSender::SendAppended(Lock& lock) {
  if (FlushScope* const scope = FlushScope::Current()) {
    if (pending_.size() >= kGatherLimit) {
      Flush(lock);
    } else if (!std::exchange(gathered_, true)) {
      scope->Add(shared_from_this());
    }
    return;
  }
  if (flushing_ || flush_posted_) return;
  const TimePoint now = Clock::Process().Now();
  if (now - last_direct_flush_ > kBurst) {
    last_direct_flush_ = now;
    Flush(lock);
    return;
  }
  flush_posted_ = true;
  strand_->Post([self = shared_from_this()] {
    Lock again(self->mutex_);
    self->flush_posted_ = false;
    self->Flush(again);
  });
}

void FrameSender::FlushGathered() {
  Lock lock(mutex_);
  gathered_ = false;
  Flush(lock);
}

bool FrameSender::FlushOverLimit(Lock& lock) {
  Flush(lock);
  over_limit_ = unsent() > kUnsentLimit;
  return over_limit_;
}

void FrameSender::OnWritable() {
  Lock lock(mutex_);
  if (ended_) return;
  flushing_ = false;
  Flush(lock);
}

void FrameSender::SendPing(Lock& lock) {
  last_sent_ = Clock::Process().Now();
  AppendControl(FrameType::kPing, 0, 0, 0);
  if (!flushing_) Flush(lock);
}

void FrameSender::Flush(Lock& lock) {
  if (flushing_ || ended_) return;
  flushing_ = true;
  const std::shared_ptr<ByteStream> stream = stream_;
  bool sent = false;
  for (;;) {
    if (active_.empty()) {
      if (pending_.empty()) PumpBatches();
      if (pending_.empty()) break;
      std::swap(active_, pending_);
    }
    in_write_ = true;
    lock.unlock();
    const ssize_t size = stream->TryWrite(active_.data(), active_.size());
    lock.lock();
    in_write_ = false;
    if (size < 0 || given_up_ || ended_) {
      // The reader sees the same end, after what the peer said before it; heartbeats end it at the latest.
      DropUnsent();
      SendingBroke();
      break;
    }
    sent = sent || size > 0;
    active_.Consume(static_cast<size_t>(size));
    if (active_.empty()) continue;
    if (sent) last_taken_ = last_sent_ = Clock::Process().Now();
    // Still flushing: the bytes wait for room.
    strand_->Post([self = shared_from_this(), stream] { stream->WaitWritable(self); });
    WakeWriters();
    return;
  }
  flushing_ = false;
  if (sent) last_taken_ = last_sent_ = Clock::Process().Now();
  WakeWriters();
}

void FrameSender::AddBatch(std::unique_ptr<BatchSource> batch) {
  batches_.push_back(std::move(batch));
  PumpBatches();
}

void FrameSender::PumpBatches() {
  while (!batches_.empty() && unsent() < kBatchAhead) {
    if (!batches_.front()->AppendNext()) batches_.erase(batches_.begin());
  }
}

void FrameSender::WakeWriters() {
  if (unsent() > kUnsentResume) return;
  if (!refused_writers_.empty()) {
    strand_->Post([writers = std::exchange(refused_writers_, {})] {
      for (const auto& weak : writers) {
        if (const auto writer = weak.lock()) writer->RoomAgain();
      }
    });
  }
  RoomAgain();
}

}  // namespace zem::rpc
