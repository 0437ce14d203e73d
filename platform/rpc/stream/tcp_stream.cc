#include "platform/core/clock.h"
#include "platform/core/lib_log.h"
#include "platform/metrics/process_metrics.h"
#include "platform/provider/provider.h"
#include "platform/provider/timer.h"
#include "platform/rpc/stream/byte_stream.h"
#include "platform/rpc/stream/memory_streams.h"
#include "platform/rpc/stream/strand.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <cerrno>
#include <mutex>
#include <optional>
#include <system_error>
#include <utility>

namespace zem::rpc {
namespace {

void CountSent(size_t bytes) {
  static metrics::Counter& sent = metrics::CounterOf(metrics::MetricId::kRpcSent);
  sent.Add(bytes);
}

void CountReceived(size_t bytes) {
  static metrics::Counter& received = metrics::CounterOf(metrics::MetricId::kRpcReceived);
  received.Add(bytes);
}

using boost::asio::ip::tcp;
using ErrorCode = boost::system::error_code;

constexpr Duration kAcceptPause = std::chrono::milliseconds(100);

std::string EndpointText(const tcp::endpoint& endpoint) {
  const std::string address = endpoint.address().to_string();
  return "tcp://" + (endpoint.address().is_v6() ? "[" + address + "]" : address) + ":" +
         std::to_string(endpoint.port());
}

class TcpStream final : public ByteStream, public std::enable_shared_from_this<TcpStream> {
 public:
  TcpStream(tcp::socket socket, std::shared_ptr<Strand> strand)
      : socket_(std::move(socket)), strand_(std::move(strand)) {
    ErrorCode ignored;  // a socket whose peer is gone already fails in its first read
    socket_.non_blocking(true, ignored);
    socket_.set_option(tcp::no_delay(true), ignored);
    const tcp::endpoint peer = socket_.remote_endpoint(ignored);
    text_ = EndpointText(peer) + " <-> " + EndpointText(socket_.local_endpoint(ignored));
    fd_ = socket_.native_handle();
  }

  void Read(char* data, size_t size, std::shared_ptr<ByteStreamReader> reader) override {
    socket_.async_read_some(
        boost::asio::buffer(data, size),
        [self = shared_from_this(), reader = std::move(reader)](const ErrorCode& error, size_t received) {
          const WorkToken token;
          if (!error) CountReceived(received);
          self->strand_->Dispatch([self, reader, size = error ? 0 : received] {
            if (!self->closed_) reader->OnRead(size);
          });
        });
  }

  ssize_t TryWrite(const char* data, size_t size) override {
    const ssize_t written = ::send(fd_, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (written > 0) CountSent(static_cast<size_t>(written));
    if (written >= 0) return written;
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? 0 : -1;
  }

  void WaitWritable(std::shared_ptr<ByteStreamReader> reader) override {
    socket_.async_wait(tcp::socket::wait_write,
                       [self = shared_from_this(), reader = std::move(reader)](const ErrorCode&) {
                         const WorkToken token;
                         self->strand_->Dispatch([self, reader] {
                           if (!self->closed_) reader->OnWritable();
                         });
                       });
  }

  // The descriptor stays until the last user is gone: another thread may be about to send on it.
  void Close() override {
    if (std::exchange(closed_, true)) return;
    ::shutdown(fd_, SHUT_RDWR);
    ErrorCode ignored;
    socket_.cancel(ignored);
  }

  const std::string& text() const override { return text_; }

 private:
  tcp::socket socket_;
  const std::shared_ptr<Strand> strand_;
  std::string text_;
  int fd_ = -1;
  bool closed_ = false;  // strand
};

// A child that inherits a listener keeps its port taken after this process has closed it.
void KeepFromChildren(int fd) { ::fcntl(fd, F_SETFD, FD_CLOEXEC); }

class TcpConnect final : public ConnectAttempt, public std::enable_shared_from_this<TcpConnect> {
 public:
  TcpConnect(AsioZemProvider& provider, StreamDone done)
      : provider_(provider), socket_(provider.io()), done_(std::move(done)) {}

  void Start(const net::Endpoint& endpoint, Duration timeout) {
    std::lock_guard lock(mutex_);
    timer_ = provider_.timers().Schedule(timeout, [self = shared_from_this()] { self->Finish("timed out"); });
    const tcp::endpoint address(boost::asio::ip::make_address(endpoint.address()), endpoint.port());
    ErrorCode error;
    socket_.open(address.protocol(), error);
    if (!error) KeepFromChildren(socket_.native_handle());
    socket_.async_connect(address, [self = shared_from_this()](const ErrorCode& failed) {
      const WorkToken token;
      self->Finish(failed ? failed.message() : "");
    });
  }

  void Cancel() override {
    StreamDone dropped;
    std::lock_guard lock(mutex_);
    dropped = std::move(done_);
    done_ = nullptr;
    if (timer_) timer_->Cancel();
    ErrorCode ignored;
    socket_.close(ignored);
  }

 private:
  void Finish(const std::string& error) {
    StreamDone done;
    std::shared_ptr<ByteStream> stream;
    const auto strand = std::make_shared<Strand>(provider_.io());
    {
      std::lock_guard lock(mutex_);
      done = std::move(done_);
      done_ = nullptr;
      if (!done) return;
      timer_->Cancel();
      if (error.empty()) {
        stream = std::make_shared<TcpStream>(std::move(socket_), strand);
      } else {
        ErrorCode ignored;
        socket_.close(ignored);
      }
    }
    done(std::move(stream), strand, error);
  }

  AsioZemProvider& provider_;
  std::mutex mutex_;  // guards all below
  tcp::socket socket_;
  StreamDone done_;
  std::shared_ptr<Timer> timer_;
};

using Accepted = std::function<void(std::shared_ptr<ByteStream>, std::shared_ptr<Strand>)>;

class TcpListener final : public StreamListener {
 public:
  TcpListener(AsioZemProvider& provider, const net::Endpoint& endpoint, Accepted accepted)
      : state_(std::make_shared<State>(provider, std::move(accepted))) {
    const tcp::endpoint address(boost::asio::ip::make_address(endpoint.address()), endpoint.port());
    try {
      state_->acceptor.open(address.protocol());
      KeepFromChildren(state_->acceptor.native_handle());
      state_->acceptor.set_option(tcp::acceptor::reuse_address(true));
      state_->acceptor.bind(address);
      state_->acceptor.listen();
      port_ = state_->acceptor.local_endpoint().port();
    } catch (const boost::system::system_error& error) {
      throw std::system_error(error.code().value(), std::system_category(),
                              "cannot listen on " + endpoint.text());
    }
    std::lock_guard lock(state_->mutex);
    Accept(state_);
  }
  ~TcpListener() override { TcpListener::Close(); }

  uint16_t port() const override { return port_; }

  void Close() override {
    std::lock_guard lock(state_->mutex);
    state_->closed = true;
    ErrorCode ignored;
    state_->acceptor.close(ignored);
  }

 private:
  struct State {
    State(AsioZemProvider& p, Accepted a) : provider(p), acceptor(p.io()), accepted(std::move(a)) {}
    AsioZemProvider& provider;
    std::mutex mutex;  // guards all below but accepted
    tcp::acceptor acceptor;
    bool closed = false;
    bool failing = false;  // the last attempt failed
    const Accepted accepted;
  };

  static void Accept(const std::shared_ptr<State>& state) {
    if (state->closed) return;
    state->acceptor.async_accept([state](const ErrorCode& error, tcp::socket socket) {
      const WorkToken token;
      if (!error) {
        KeepFromChildren(socket.native_handle());
        auto strand = std::make_shared<Strand>(state->provider.io());
        auto stream = std::make_shared<TcpStream>(std::move(socket), strand);
        state->accepted(std::move(stream), std::move(strand));
      }
      std::lock_guard lock(state->mutex);
      if (state->closed) return;
      if (!error || error == boost::asio::error::connection_aborted) {
        state->failing = false;
        Accept(state);
        return;
      }
      // Out of descriptors, most likely: asking again at once would spin, and saying it each time fill the
      // log.
      if (!std::exchange(state->failing, true)) {
        ZEM_LIB_LOG(Library::kNet, kLogWarning, "accept failed: %s, trying again every %lld ms",
                    error.message().c_str(),
                    static_cast<long long>(kAcceptPause / std::chrono::milliseconds(1)));
      }
      state->provider.timers().Schedule(kAcceptPause, [state] {
        std::lock_guard again(state->mutex);
        Accept(state);
      });
    });
  }

  const std::shared_ptr<State> state_;
  uint16_t port_ = 0;
};

}  // namespace

std::shared_ptr<ConnectAttempt> ConnectStream(AsioZemProvider& provider, const net::Endpoint& endpoint,
                                              Duration timeout, StreamDone done) {
  if (MemoryStreams::Exist()) return MemoryStreams::Connect(provider, endpoint, std::move(done));
  auto attempt = std::make_shared<TcpConnect>(provider, std::move(done));
  attempt->Start(endpoint, timeout);
  return attempt;
}

std::unique_ptr<StreamListener> ListenForStreams(AsioZemProvider& provider, const net::Endpoint& endpoint,
                                                 Accepted accepted) {
  if (endpoint.kind() != net::Endpoint::Kind::kTcp) {
    throw std::system_error(std::make_error_code(std::errc::invalid_argument),
                            "cannot listen on " + endpoint.text());
  }
  if (MemoryStreams::Exist()) return MemoryStreams::Listen(provider, endpoint, std::move(accepted));
  return std::make_unique<TcpListener>(provider, endpoint, std::move(accepted));
}

}  // namespace zem::rpc
