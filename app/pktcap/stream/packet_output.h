#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "app/pktcap/stream/pcap_reader.h"

namespace zem::Tarvik {

/// Packets, and the bytes captured of them.
struct PacketCounts {
  uint64_t packets = 0;
  uint64_t bytes = 0;
};

/// Where the packets of a capture go.
///
/// Threads: one at a time.
/// Errors: an operation returns what went wrong, null when nothing did.  Nothing is to be done after that but
/// `Finish`.
class PacketOutput {
 public:
  virtual ~PacketOutput() = default;

  /// The stream's file header, once, before the packets.
  [[nodiscard]] virtual const char* TakeHeader(std::string_view header) = 0;
  /// The record's bytes have to live until the next `Flush`.
  [[nodiscard]] virtual const char* Take(const PcapRecord& record) = 0;
  /// Hands on what was taken, as much as the other side takes without waiting.
  [[nodiscard]] virtual const char* Flush() = 0;
  /// After the last packet.
  [[nodiscard]] virtual const char* Finish() = 0;

  /// What has left.
  PacketCounts sent() const { return sent_; }
  /// What was taken, whether it has left or not.
  PacketCounts taken() const { return taken_; }

  /// Returns whether there is room for more.
  virtual bool HasRoom() const { return true; }
  /// What becomes writable when `Flush` can go on; -1 while there is nothing to wait for.
  virtual int waits_for() const { return -1; }

 protected:
  PacketCounts sent_;
  PacketCounts taken_;
};

}  // namespace zem::Tarvik
