#pragma once

#include <sys/socket.h>

#include <vector>

#include "app/pktcap/stream/packet_output.h"
#include "platform/core/unique_fd.h"

namespace zem::Tarvik {

/// Sends a capture to a remote receiver, a datagram a packet.  Datagrams wait in a queue while the socket is
/// full; what the network loses is lost.
class DatagramOutput final : public PacketOutput {
 public:
  enum class Framing {
    kGre,            ///< in GRE; a packet longer than a datagram is cut
    kCaptureHeader,  ///< behind a header with the packet's place and time
  };
  /// More are not taken while so many wait.
  static constexpr size_t kMostQueued = 512;
  static constexpr size_t kMostSentAtOnce = 256;
  static constexpr const char* kReceiverEnd = "remote receiver EOF";
  static constexpr const char* kReceiverError = "remote receiver error";

  struct Receiver {
    sockaddr_storage address;
    socklen_t length;
  };

  /// `socket` does not block.  `incoming` and `vni` as in the GRE header.
  DatagramOutput(UniqueFd socket, const Receiver& receiver, Framing framing, bool incoming, uint32_t vni)
      : socket_(std::move(socket)), receiver_(receiver), framing_(framing), incoming_(incoming), vni_(vni) {}

  [[nodiscard]] const char* TakeHeader(std::string_view) override { return nullptr; }
  [[nodiscard]] const char* Take(const PcapRecord& record) override;
  [[nodiscard]] const char* Flush() override;
  [[nodiscard]] const char* Finish() override { return nullptr; }

  bool HasRoom() const override { return queued() <= kMostQueued; }
  int waits_for() const override { return queued() > 0 ? socket_.get() : -1; }
  size_t queued() const { return datagrams_.size() - first_; }

 private:
  struct Datagram {
    size_t begin;  // in bytes_
    size_t size;
    uint32_t captured;
  };

  void Sent(size_t count);

  const UniqueFd socket_;
  const Receiver receiver_;
  const Framing framing_;
  const bool incoming_;
  const uint32_t vni_;
  uint32_t serial_ = 0;
  // The queue: one block of bytes, which is used again when it is empty.
  std::vector<char> bytes_;
  std::vector<Datagram> datagrams_;
  size_t first_ = 0;
};

}  // namespace zem::Tarvik
