#include "app/pktcap/stream/datagram_output.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include "app/pktcap/stream/capture_headers.h"

namespace zem::Tarvik {
namespace {

constexpr size_t kBatch = 64;
// A datagram of UDP over IPv4, less the GRE header.
constexpr size_t kMostInGre = 65'507 - kGreHeaderSize;

}  // namespace

const char* DatagramOutput::Take(const PcapRecord& record) {
  const size_t begin = bytes_.size();
  std::string_view data = record.data;
  ++serial_;
  if (framing_ == Framing::kGre) {
    const auto header = GreHeader(incoming_, vni_);
    bytes_.insert(bytes_.end(), header.begin(), header.end());
    data = data.substr(0, kMostInGre);
  } else {
    const auto header = CaptureHeader(record, serial_);
    bytes_.insert(bytes_.end(), header.begin(), header.end());
  }
  bytes_.insert(bytes_.end(), data.begin(), data.end());
  datagrams_.push_back({begin, bytes_.size() - begin, record.captured_length});
  ++taken_.packets;
  taken_.bytes += record.captured_length;
  return nullptr;
}

const char* DatagramOutput::Flush() {
  std::array<mmsghdr, kBatch> messages;
  std::array<iovec, kBatch> parts;
  for (size_t left = std::min(queued(), kMostSentAtOnce); left > 0;) {
    const size_t count = std::min(left, kBatch);
    for (size_t i = 0; i < count; ++i) {
      const Datagram& datagram = datagrams_[first_ + i];
      parts[i] = {bytes_.data() + datagram.begin, datagram.size};
      messages[i] = {};
      messages[i].msg_hdr.msg_name = const_cast<sockaddr_storage*>(&receiver_.address);
      messages[i].msg_hdr.msg_namelen = receiver_.length;
      messages[i].msg_hdr.msg_iov = &parts[i];
      messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int sent = ::sendmmsg(socket_.get(), messages.data(), static_cast<unsigned>(count), MSG_NOSIGNAL);
    if (sent == 0) return kReceiverEnd;
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && (errno == EAGAIN || errno == ENOBUFS)) return nullptr;
    if (sent < 0) return kReceiverError;
    Sent(static_cast<size_t>(sent));
    left -= static_cast<size_t>(sent);
  }
  return nullptr;
}

void DatagramOutput::Sent(size_t count) {
  for (size_t i = 0; i < count; ++i) sent_.bytes += datagrams_[first_ + i].captured;
  sent_.packets += count;
  first_ += count;
  if (queued() == 0) {
    datagrams_.clear();
    bytes_.clear();
    first_ = 0;
    return;
  }
  // A queue that is never quite empty must not grow at its back.
  if (first_ < kMostQueued) return;
  const size_t gone = datagrams_[first_].begin;
  bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<ptrdiff_t>(gone));
  datagrams_.erase(datagrams_.begin(), datagrams_.begin() + static_cast<ptrdiff_t>(first_));
  for (Datagram& datagram : datagrams_) datagram.begin -= gone;
  first_ = 0;
}

}  // namespace zem::Tarvik
