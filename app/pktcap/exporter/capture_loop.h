#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "app/pktcap/stream/packet_output.h"
#include "app/pktcap/stream/pcap_reader.h"
#include "app/pktcap/stream/rate_limit.h"
#include "platform/core/clock.h"
#include "platform/core/unique_fd.h"

namespace zem::Tarvik {

/// The limits of one capture.
struct CaptureLimits {
  static constexpr uint64_t kUnlimited = ~uint64_t{0};

  /// Seconds; 0 is without limit.
  uint32_t duration_s = 0;
  uint64_t packets = kUnlimited;
  uint64_t bytes = kUnlimited;
  /// In a second; 0 is without limit.
  uint64_t packet_rate = kUnlimited;
  uint64_t byte_rate = kUnlimited;
  /// Bytes of a packet that are kept.
  uint32_t snap_length = 65'535;
};

/// Reads the filter's stream, enforces the limits of the session and hands the packets on, until the stream,
/// a limit or a request ends it.
///
/// Threads: `Run` once, by the session's thread.
class CaptureLoop {
 public:
  struct Ends {
    /// The filter's standard output and its errors; they do not block.  The loop closes them at their end.
    UniqueFd* output;
    UniqueFd* errors;
    /// The named pipe between the tools; empty when there is none.
    std::string pipe;
    /// The capturing tool; set to -1 when it has ended and was waited for.
    pid_t* capture;
    /// Set, and readable, when the session has to stop.
    const std::atomic<bool>* stop;
    int stop_fd;
  };
  /// Why a session ended otherwise than well.
  struct Failure {
    const char* text = nullptr;
    /// False for a text that is noted while the session's outcome stays good.
    bool fatal = false;
  };

  CaptureLoop(std::string session, const CaptureLimits& limits, const Ends& ends, PacketOutput& output);

  Failure Run();

  bool has_header() const { return reader_.has_header(); }

 private:
  enum class Step { kOn, kEnd };

  [[nodiscard]] bool LimitReached(PacketCounts counts) const;
  void LookAtCaptureTool();
  void Wait();
  void HearErrors();
  Step ServeOutput();
  [[nodiscard]] bool ReadPass();
  [[nodiscard]] const char* TakeRecords();
  [[nodiscard]] bool Passes(const PcapRecord& record);
  Step Fail(const char* text);
  Step EndOfStream();

  const std::string session_;
  const CaptureLimits limits_;
  const Ends ends_;
  PacketOutput& output_;
  PcapReader reader_;
  RateLimit rate_;
  Failure failure_;
  bool output_ready_ = false;
  bool output_ended_ = false;
  bool waited_ = false;  // for the tools, in vain
  std::string heard_;    // what the filter has printed on its errors before its stream began
};

/// Reads what a tool has printed on its errors, without waiting, into the log, and returns it.  Closes the
/// pipe at its end.
std::string LogToolErrors(const std::string& session, UniqueFd* errors);

}  // namespace zem::Tarvik
