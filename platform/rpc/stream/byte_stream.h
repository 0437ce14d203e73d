#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "platform/core/clock.h"
#include "platform/rpc/endpoint.h"

namespace zem {
class AsioZemProvider;
}

namespace zem::rpc {

class Strand;

/// Who reads a byte stream.  Calls come on the stream's strand.
class ByteStreamReader {
 public:
  virtual ~ByteStreamReader() = default;
  /// `size` bytes have come; 0 when the stream has ended or failed.
  virtual void OnRead(size_t size) = 0;
  virtual void OnWritable() = 0;
};

/// A connected socket, or its image in memory.
class ByteStream {
 public:
  virtual ~ByteStream() = default;

  /// Reads once into `data`, which stays valid until `OnRead` or `Close`.  On the strand.
  virtual void Read(char* data, size_t size, std::shared_ptr<ByteStreamReader> reader) = 0;
  /// Takes what fits at once: the number of bytes, 0 when none, -1 when the stream is broken.  From any
  /// thread, one at a time.
  virtual ssize_t TryWrite(const char* data, size_t size) = 0;
  /// `OnWritable` follows.  On the strand.
  virtual void WaitWritable(std::shared_ptr<ByteStreamReader> reader) = 0;
  /// No more bytes either way; a pending read or wait is forgotten.  On the strand.
  virtual void Close() = 0;
  /// "tcp://peer <-> tcp://local"
  virtual const std::string& text() const = 0;
};

/// An attempt to connect.  From any thread.
class ConnectAttempt {
 public:
  virtual ~ConnectAttempt() = default;
  /// `done` does not run any more unless it has begun.
  virtual void Cancel() = 0;
};

/// A listening endpoint; closes at its end.
class StreamListener {
 public:
  virtual ~StreamListener() = default;
  virtual uint16_t port() const = 0;
  virtual void Close() = 0;
};

using StreamDone = std::function<void(std::shared_ptr<ByteStream> stream, std::shared_ptr<Strand> strand,
                                      const std::string& error)>;

/// Connects to a "tcp://" endpoint; over the memory network when there is one.  `done` runs once on the
/// loop's threads, never in this stack; without a stream it has the error's text.
std::shared_ptr<ConnectAttempt> ConnectStream(AsioZemProvider& provider, const net::Endpoint& endpoint,
                                              Duration timeout, StreamDone done);

/// Throws std::system_error when the endpoint cannot be bound.
std::unique_ptr<StreamListener> ListenForStreams(
    AsioZemProvider& provider, const net::Endpoint& endpoint,
    std::function<void(std::shared_ptr<ByteStream>, std::shared_ptr<Strand>)> accepted);

}  // namespace zem::rpc
