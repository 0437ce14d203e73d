#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace orlane::zem {
class UuidMsg;
namespace context::ids {
class EventInfo;
class EventInfoMsg;
class PcapInfoMsg;
class PcapMsg;
}  // namespace context::ids
}  // namespace orlane::zem

namespace zem::sim {

/// What the detection process announced, against what arrives at the manager: no message may be malformed, no
/// alert or capture may arrive that was not announced, nor one more often than it was, nor with other bytes.
///
/// Threads: all operations from any thread.
/// Limits: 200000 different alerts and 100000 captures; what is announced beyond is not judged.
class IdsLedger {
 public:
  struct Arrived {
    uint64_t messages = 0;
    uint64_t entries = 0;
    uint64_t alerts = 0;
    uint64_t pcap_messages = 0;
    uint64_t captures = 0;
    uint64_t captures_with_bytes = 0;
    uint64_t bytes = 0;
  };

  void AnnounceAlert(uint32_t signature_id, const std::string& vm_uuid, const std::string& address,
                     const std::string& other_address);
  /// `bytes` is the file's content.
  void AnnounceCapture(uint64_t flow_id, uint64_t snip_ts_us, const std::string& bytes);

  void Take(const orlane::zem::context::ids::EventInfoMsg& message);
  void Take(const orlane::zem::context::ids::PcapInfoMsg& message);
  /// Something arrived that is no message.
  void TakeGarbage(const std::string& what);

  Arrived arrived() const;
  std::vector<std::string> violations() const;

 private:
  struct Announced {
    uint64_t count = 0;
    uint64_t arrived = 0;
  };
  struct Capture {
    Announced announced;
    size_t size = 0;
    size_t hash = 0;  // of its bytes
  };
  using CaptureKey = std::pair<uint64_t, uint64_t>;

  void Judge(const orlane::zem::context::ids::EventInfo& info);
  void Judge(const orlane::zem::context::ids::PcapMsg& pcap);
  void Violation(const std::string& text);

  mutable std::mutex mutex_;  // guards what follows
  std::map<std::string, Announced> alerts_;
  bool alerts_full_ = false;
  std::map<CaptureKey, Capture> captures_;
  bool captures_full_ = false;
  Arrived arrived_;
  std::vector<std::string> violations_;
};

}  // namespace zem::sim
