#pragma once

#include <netinet/in.h>

#include <atomic>
#include <memory>
#include <string>

#include "app/pktcap/exporter/capture_loop.h"
#include "app/pktcap/exporter/capture_parameters.h"
#include "platform/core/ref_counted.h"
#include "platform/core/unique_fd.h"

namespace zem::Tarvik {

/// The engine of one capture session: chains the host's capturing tool and its filter, and hands the packets
/// that pass on to a file or a remote receiver.
///
/// Threads: set up by one thread, then `Run` once by a long-lived one; `RequestStop` from any, also before.
class PktcapExporter : public RefCounted<PktcapExporter, IRefCountable> {
 public:
  PktcapExporter(std::string session, const CaptureLimits& limits, const CaptureParameters::Host& host);

  /// Returns 0 or the error of the parameter's check, 1 for an unknown name.  `*stop` ends a look-up.
  [[nodiscard]] int SetParameter(const std::string& name, const std::string& value,
                                 const std::atomic<bool>* stop = nullptr);
  /// The packets go to a new file.
  void SetOutputFile(const std::string& path);
  /// The packets go to an IPv4 or IPv6 address: in GRE, whose port is fixed, or behind a header of their own.
  void SetOutputStream(const std::string& address, uint16_t port, bool gre);

  /// The whole session.  Returns 0 or a negative number.
  [[nodiscard]] int Run();
  void RequestStop();

  /// What was noted of the session; it may have ended well all the same.
  int error_code() const { return error_code_; }
  const std::string& error_text() const { return error_text_; }

 private:
  enum class OutputMode { kLocalFile = 0, kStreamInGre = 1, kStreamWithHeader = 2 };
  struct ToolChain;

  std::unique_ptr<PacketOutput> PrepareOutput();
  std::unique_ptr<PacketOutput> OpenFile();
  std::unique_ptr<PacketOutput> OpenStream();
  [[nodiscard]] bool StartTools(ToolChain* tools);
  void StopTools(ToolChain* tools);
  int Note(const char* text);

  const std::string session_;
  const CaptureLimits limits_;
  const CaptureParameters::Host host_;
  CaptureParameters parameters_;
  OutputMode mode_ = OutputMode::kLocalFile;
  std::string target_;  // path or address
  uint16_t port_ = 0;
  int error_code_ = 0;
  std::string error_text_;
  std::atomic<bool> stop_requested_{false};
  const UniqueFd wake_;
};

}  // namespace zem::Tarvik
