#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "app/pktcap/tools/port_lookup.h"
#include "platform/core/ref_counted.h"

namespace zem::Tarvik {

/// Where the manager takes a capture file.  The secrets of it are overwritten when it is destroyed.
struct UploadTarget {
  UploadTarget() = default;
  UploadTarget(const UploadTarget&) = default;
  UploadTarget& operator=(const UploadTarget&) = default;
  ~UploadTarget();

  std::string token;
  std::string server;
  std::string port;
  std::string fingerprint;
};

/// Hands one capture file to the host's upload helper.
///
/// Threads: `Run` once, by a long-lived thread; `RequestStop` from any, also before.
class PktcapUploader : public RefCounted<PktcapUploader, IRefCountable> {
 public:
  PktcapUploader(const CaptureTools& tools, std::string session_id, std::string file,
                 const UploadTarget& target);
  ~PktcapUploader() override;

  /// Returns whether the file has arrived.
  [[nodiscard]] bool Run();
  void RequestStop() { stop_ = true; }

 private:
  std::string Input(const std::string& token) const;

  const CaptureTools tools_;
  const std::string session_id_;
  const std::string file_;
  UploadTarget target_;
  std::atomic<bool> stop_{false};
};

}  // namespace zem::Tarvik
