#include "app/pktcap/exporter/capture_loop.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "framework/log/log.h"
#include "platform/core/poll.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "pktcap"};

constexpr auto kLook = std::chrono::seconds(1);
constexpr int kReadsInPass = 32;
constexpr size_t kReadSize = 4096;
constexpr size_t kErrorSize = 4095;
constexpr const char* kForeignFile = "unsupported file format.";
constexpr const char* kNotLaunched = "pktcap-uw: failed to launch";
constexpr const char* kTimeout = "export task finished with timeout";
constexpr const char* kWaitFailed = "select(): unknown error";

int64_t TimeOf(const PcapRecord& record) {
  const int64_t time = int64_t{record.seconds} * 1'000'000'000 + int64_t{record.microseconds} * 1000;
  if (time != 0) return time;
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::Process().WallNow().time_since_epoch())
      .count();
}

}  // namespace

CaptureLoop::CaptureLoop(std::string session, const CaptureLimits& limits, const Ends& ends,
                         PacketOutput& output)
    : session_(std::move(session)),
      limits_(limits),
      ends_(ends),
      output_(output),
      rate_(limits.packet_rate, limits.byte_rate) {}

CaptureLoop::Failure CaptureLoop::Run() {
  const TimePoint begin = Clock::Process().Now();
  const auto duration = std::chrono::seconds(limits_.duration_s);
  for (;;) {
    if (LimitReached(output_.sent()) || *ends_.stop) return failure_;
    if (limits_.duration_s != 0 && Clock::Process().Now() - begin >= duration) {
      failure_.text = kTimeout;
      return failure_;
    }
    LookAtCaptureTool();
    if (const char* const failed = output_.Flush()) Fail(failed);
    if (failure_.fatal) return failure_;
    // A stream that has ended still has to be sent.
    if (output_ended_ && output_.waits_for() < 0) return failure_;
    Wait();
    if (failure_.fatal || (output_ready_ && ServeOutput() == Step::kEnd)) return failure_;
  }
}

bool CaptureLoop::LimitReached(PacketCounts counts) const {
  return counts.packets >= limits_.packets || counts.bytes >= limits_.bytes;
}

// A tool that ends without having opened the pipe leaves the filter waiting in its own opening of it. Whoever
// opens the other side, and be it for a moment, lets it go on to the end of a stream.
void CaptureLoop::LookAtCaptureTool() {
  if (*ends_.capture > 0) {
    pid_t waited = -1;
    do {
      waited = ::waitpid(*ends_.capture, nullptr, WNOHANG);
    } while (waited < 0 && errno == EINTR);
    if (waited == 0) return;
    ZLOG_INFO("%s: child %d terminated", "LoopImpl", static_cast<int>(*ends_.capture));
    *ends_.capture = -1;
  }
  if (reader_.has_header() || output_ended_ || ends_.pipe.empty()) return;
  const UniqueFd other_side(::open(ends_.pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
}

void CaptureLoop::Wait() {
  output_ready_ = false;
  // What is not taken would pile up.
  const bool reads = !output_ended_ && output_.HasRoom() && !LimitReached(output_.taken());
  pollfd waits[] = {{reads ? ends_.output->get() : -1, POLLIN, 0},
                    {ends_.errors->get(), POLLIN, 0},
                    {output_.waits_for(), POLLOUT, 0},
                    {ends_.stop_fd, POLLIN, 0}};
  const TimePoint look = Clock::Process().Now() + kLook;
  // While they start, the tools work for us.
  const int ready = reader_.has_header() || waited_ ? PollUntil(waits, std::size(waits), look)
                                                    : PollAnswer(waits, std::size(waits), look);
  waited_ = waited_ || ready == 0;
  if (ready < 0 && errno != EINTR) Fail(kWaitFailed);
  if (ready <= 0) return;
  output_ready_ = waits[0].revents != 0;
  if (waits[1].revents != 0) HearErrors();
}

void CaptureLoop::HearErrors() {
  const std::string text = LogToolErrors(session_, ends_.errors);
  if (!reader_.has_header() && heard_.size() + text.size() <= kErrorSize) heard_ += text;
}

CaptureLoop::Step CaptureLoop::ServeOutput() {
  const bool ended = ReadPass();
  if (!reader_.has_header()) {
    switch (reader_.TakeHeader()) {
      case PcapReader::Taken::kForeign:
        return Fail(kForeignFile);
      case PcapReader::Taken::kWhole:
        if (const char* const failed = output_.TakeHeader(reader_.header())) return Fail(failed);
        break;
      case PcapReader::Taken::kAwaited:
        break;
    }
  }
  if (reader_.has_header()) {
    if (const char* const failed = TakeRecords()) return Fail(failed);
  }
  return ended ? EndOfStream() : Step::kOn;
}

// Returns whether the stream has ended.
bool CaptureLoop::ReadPass() {
  for (int i = 0; i < kReadsInPass; ++i) {
    const auto space = reader_.Space(kReadSize);
    const ssize_t got = ::read(ends_.output->get(), space.data(), space.size());
    if (got > 0) {
      reader_.Filled(static_cast<size_t>(got));
      continue;
    }
    if (got < 0 && errno == EINTR) continue;
    return !(got < 0 && errno == EAGAIN);
  }
  return false;
}

const char* CaptureLoop::TakeRecords() {
  PcapRecord record;
  while (!LimitReached(output_.taken())) {
    const PcapReader::Taken taken = reader_.TakeRecord(&record);
    if (taken == PcapReader::Taken::kAwaited) break;
    if (taken == PcapReader::Taken::kForeign) {
      // What came before it is good.
      const char* const failed = output_.Flush();
      return failed != nullptr ? failed : kForeignFile;
    }
    if (!Passes(record)) continue;
    if (const char* const failed = output_.Take(record)) return failed;
  }
  // The views end with the next reading.
  return output_.Flush();
}

bool CaptureLoop::Passes(const PcapRecord& record) {
  return rate_.Pass(TimeOf(record), record.captured_length);
}

CaptureLoop::Step CaptureLoop::EndOfStream() {
  ends_.output->Reset();
  output_ended_ = true;
  if (reader_.has_header()) return Step::kOn;
  // The tool has never begun to capture.
  if (*ends_.capture < 0) return Fail(kNotLaunched);
  // Most likely an expression that the filter does not take: the capture is empty, and its outcome tells
  // nobody.
  HearErrors();
  ZLOG_WARN("Session %s: the filter has ended before its stream began: %s", session_.c_str(), heard_.c_str());
  return Step::kOn;
}

CaptureLoop::Step CaptureLoop::Fail(const char* text) {
  failure_ = {text, true};
  return Step::kEnd;
}

std::string LogToolErrors(const std::string& session, UniqueFd* errors) {
  if (!*errors) return {};
  char text[kErrorSize + 1];
  const ssize_t got = ::read(errors->get(), text, kErrorSize);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) return {};
  if (got <= 0) {
    errors->Reset();
    return {};
  }
  text[got] = '\0';
  ZLOG_DEBUG("Session %s: %s\n", session.c_str(), text);
  return {text, static_cast<size_t>(got)};
}

}  // namespace zem::Tarvik
