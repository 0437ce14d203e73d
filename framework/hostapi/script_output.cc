#include "framework/hostapi/script_output.h"

#include <fcntl.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <cerrno>
#include <mutex>
#include <utility>

#include "framework/log/log.h"
#include "platform/core/clock.h"
#include "platform/provider/provider.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "framework"};

constexpr size_t kPiece = 1024;
constexpr int kPiecesAtATime = 64;
constexpr int kLinesPerSecond = 10;

}  // namespace

class ScriptOutput::Reader : public std::enable_shared_from_this<Reader> {
 public:
  Reader(AsioZemProvider& provider, UniqueFd pipe) : pipe_(provider.io()) {
    ::fcntl(pipe.get(), F_SETFL, ::fcntl(pipe.get(), F_GETFL) | O_NONBLOCK);
    pipe_.assign(pipe.Release());
  }

  void Wait() {
    const std::lock_guard lock(mutex_);
    WaitLocked();
  }

  void Close() {
    const std::lock_guard lock(mutex_);
    boost::system::error_code ignored;
    pipe_.close(ignored);
  }

 private:
  void WaitLocked() {
    if (!pipe_.is_open()) return;
    pipe_.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                     [self = shared_from_this()](const boost::system::error_code& error) {
                       if (!error) self->Read();
                     });
  }

  void Read() {
    const std::lock_guard lock(mutex_);
    char piece[kPiece];
    for (int left = kPiecesAtATime; left > 0 && pipe_.is_open(); --left) {
      const ssize_t got = ::read(pipe_.native_handle(), piece, sizeof(piece));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0 && errno == EAGAIN) break;
      if (got <= 0) return;
      Log({piece, static_cast<size_t>(got)});
    }
    WaitLocked();
  }

  void Log(std::string_view text) {
    const TimePoint now = Clock::Process().Now();
    if (now - second_began_ >= std::chrono::seconds(1)) {
      second_began_ = now;
      lines_ = 0;
    }
    if (++lines_ > kLinesPerSecond) return;
    ZLOG_DEBUG("zemLum.py: %.*s", static_cast<int>(text.size()), text.data());
  }

  std::mutex mutex_;  // guards all below
  boost::asio::posix::stream_descriptor pipe_;
  TimePoint second_began_;
  int lines_ = 0;
};

ScriptOutput::ScriptOutput(AsioZemProvider& provider, UniqueFd pipe)
    : reader_(std::make_shared<Reader>(provider, std::move(pipe))) {
  reader_->Wait();
}

ScriptOutput::~ScriptOutput() { reader_->Close(); }

}  // namespace zem::Tarvik
