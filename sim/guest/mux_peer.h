#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "platform/core/condition.h"
#include "platform/core/stop_signal.h"
#include "platform/core/thread.h"

namespace zem {
class SharedSocket;
}

namespace zem::sim::guest {

class GuestWorld;

/// The multiplexer as the library meets it: serves the world's events and answers on a socket, and beats the
/// guests' timers.
///
/// Threads: all operations from any thread.
class MuxPeer {
 public:
  /// Listens at `path`, whose folder is made.  Throws std::system_error.
  MuxPeer(GuestWorld& world, std::string path, std::chrono::milliseconds tick);
  ~MuxPeer();
  MuxPeer(const MuxPeer&) = delete;
  MuxPeer& operator=(const MuxPeer&) = delete;

  /// As when its process ends: every connection breaks, and nobody listens.
  void Die();
  /// Returns false when it serves already.  Throws std::system_error.
  bool Return();
  /// While frozen, questions get no answer.
  void SetFrozen(bool frozen);
  void SetTick(std::chrono::milliseconds tick);
  bool serving() const;

 private:
  using Socket = std::shared_ptr<SharedSocket>;
  struct Connection {
    Socket socket;
    NativeThread thread;
    bool ended = false;
  };

  void Listen();
  void Accept(const Socket& listener);
  void Serve(const Socket& socket);
  void Beat();

  GuestWorld& world_;
  const std::string path_;
  StopSignal stop_;
  mutable std::mutex mutex_;  // guards what follows
  Condition thawed_;
  Socket listener_;
  std::list<Connection> connections_;
  NativeThread acceptor_;
  bool frozen_ = false;
  std::chrono::milliseconds tick_;
  NativeThread beat_;
};

}  // namespace zem::sim::guest
