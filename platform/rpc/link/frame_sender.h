#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/core/clock.h"
#include "platform/rpc/close_reason.h"
#include "platform/rpc/status.h"
#include "platform/rpc/stream/byte_stream.h"
#include "platform/rpc/stream/flush_scope.h"
#include "platform/rpc/stream/strand.h"
#include "platform/rpc/wire/frame.h"
#include "platform/rpc/wire/send_buffer.h"

namespace google::protobuf {
class MessageLite;
}

namespace zem::rpc {

/// A list of requests that is serialized as the socket drains.
class BatchSource {
 public:
  virtual ~BatchSource() = default;
  /// Appends the next request.  Returns false when there will be no more.  Runs under the connection's mutex.
  virtual bool AppendNext() = 0;
};

/// A writer that was refused because too much was unsent.
class RefusedWriter {
 public:
  virtual ~RefusedWriter() = default;
  /// Half of the limit is free again.  Runs on the connection's strand.
  virtual void RoomAgain() = 0;
};

/// The sending half of a connection, and the mutex that guards the connection's state.
///
/// Threads: any thread appends under the mutex, straight into the send buffer, then calls `SendAppended`.
/// The bytes go to the socket without the mutex, by one thread at a time.
class FrameSender : public ByteStreamReader,
                    public Flushable,
                    public std::enable_shared_from_this<FrameSender> {
 public:
  using Lock = std::unique_lock<std::mutex>;

  const std::shared_ptr<Strand>& strand() const { return strand_; }
  std::mutex& mutex() const { return mutex_; }
  /// "tcp://peer <-> tcp://local"
  const std::string& text() const { return text_; }
  void LogThrown(const std::exception& error) const;

  // The following run under the mutex.

  /// Appends the header and room for `header.length` bytes, to be filled by the caller.
  char* AppendFrame(FrameHeader header);
  /// Returns false, and appends nothing, when the frame would be over the limit.
  bool AppendMessage(FrameHeader header, std::string_view prefix,
                     const google::protobuf::MessageLite* message);
  void AppendControl(FrameType type, uint32_t channel, uint32_t call, uint16_t code);
  void AppendEnd(uint32_t channel, uint32_t call, const Status& status);
  void AddBatch(std::unique_ptr<BatchSource> batch);
  void AddRefusedWriter(std::weak_ptr<RefusedWriter> writer) {
    refused_writers_.push_back(std::move(writer));
  }
  size_t unsent() const { return pending_.size() + active_.size(); }
  /// Sends what was appended: when the callbacks of this thread are through, at once, or soon.
  void SendAppended(Lock& lock);

  void FlushGathered() override;
  void OnWritable() final;

 protected:
  FrameSender(std::shared_ptr<ByteStream> stream, std::shared_ptr<Strand> strand);

  /// More is unsent than the limit allows; the reading has to stop.  From any thread.
  bool over_limit() const { return over_limit_.load(std::memory_order_relaxed); }

  // The following run under the mutex.

  virtual void CloseSoon(CloseReason reason) = 0;
  /// The socket takes no more bytes.
  virtual void SendingBroke() = 0;
  /// At most half of the limit is unsent.  Runs after each flush.
  virtual void RoomAgain() = 0;

  void Flush(Lock& lock);
  /// Flushes, and returns whether more is still unsent than the limit allows.
  bool FlushOverLimit(Lock& lock);
  void SendPing(Lock& lock);
  /// Drops what is unsent; what is appended from now on is dropped too.  The caller closes the stream.
  [[nodiscard]] std::shared_ptr<ByteStream> EndSending();

  const std::shared_ptr<ByteStream>& stream() const { return stream_; }
  /// A thread is at the socket, without the mutex.
  bool in_write() const { return in_write_; }
  TimePoint last_sent() const { return last_sent_; }
  TimePoint last_taken() const { return last_taken_; }

 private:
  void LimitUnsent();
  void DropUnsent();
  void PumpBatches();
  void WakeWriters();

  const std::shared_ptr<Strand> strand_;
  const std::string text_;

  mutable std::mutex mutex_;  // guards all below, and the state of the classes that derive from this one
  std::shared_ptr<ByteStream> stream_;
  SendBuffer pending_;  // appended to
  SendBuffer active_;   // being written by whoever has set flushing_
  bool flushing_ = false;
  bool in_write_ = false;
  bool gathered_ = false;  // a FlushScope will flush
  bool flush_posted_ = false;
  bool ended_ = false;
  bool given_up_ = false;                // the peer does not read: what is appended from now on is dropped
  std::atomic<bool> over_limit_{false};  // written under the mutex
  TimePoint last_direct_flush_{};
  TimePoint last_sent_;
  TimePoint last_taken_;  // when the socket took bytes
  std::vector<std::unique_ptr<BatchSource>> batches_;
  std::vector<std::weak_ptr<RefusedWriter>> refused_writers_;
};

}  // namespace zem::rpc
