#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "sim/kafka/certificates.h"

namespace boost::asio {
class io_context;
}

namespace zem::sim {

/// The TLS side of one broker: takes connections of clients that show a certificate of the authority, and
/// carries their bytes to the broker's plain port and back.  A broker tells its clients the plain ports of
/// the cluster; the front tells them the fronts' ports instead.
///
/// Threads: all operations from any thread; the work is done on the thread that runs `io`.
class TlsFront {
 public:
  /// Listens on a free port of 127.0.0.1 at once.
  TlsFront(boost::asio::io_context& io, uint16_t broker_port, std::string authority);
  ~TlsFront();
  TlsFront(const TlsFront&) = delete;
  TlsFront& operator=(const TlsFront&) = delete;

  uint16_t port() const;
  uint16_t broker_port() const;

  /// For connections from now on.
  void SetCertificate(KeyPair pair);
  /// The front's port by the plain port of each broker.
  void SetPorts(std::map<uint16_t, uint16_t> ports);
  /// Listens no more and closes what is connected, or listens again at the same port.
  void SetDown(bool down);
  /// Closes each connection after the handshake.
  void SetRefusing(bool refusing);
  /// Reads nothing more from clients, so that their bytes pile up.
  void SetStuck(bool stuck);

  struct Counters {
    uint64_t handshakes = 0;
    uint64_t failed_handshakes = 0;
    uint64_t connected = 0;
  };
  Counters counters() const;

 private:
  class Impl;
  class Session;
  const std::shared_ptr<Impl> impl_;
};

/// In whole frames of the Kafka protocol from a broker: puts the fronts' ports behind "127.0.0.1" in place of
/// the brokers'.
void ReplacePorts(const std::map<uint16_t, uint16_t>& ports, std::string* frames);

}  // namespace zem::sim
