// The best that the machine can do: length-prefixed messages over one blocking socket, one thread on each
// side, without ids, limits or status.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <thread>

#include "bench/rpc/bench.h"
#include "bench/rpc/bench.pb.h"
#include "platform/core/unique_fd.h"

namespace zem::bench {
namespace {

using orlane::zem::bench::BytesMsg;

// Reads and writes frames on a socket, as many at a time as are available.
class Pipe {
 public:
  explicit Pipe(UniqueFd fd) : fd_(std::move(fd)) {
    const int on = 1;
    ::setsockopt(fd_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  }

  void Put(const BytesMsg& message) {
    const uint32_t size = static_cast<uint32_t>(message.ByteSizeLong());
    const size_t at = out_.size();
    out_.resize(at + 4 + size);
    std::memcpy(out_.data() + at, &size, 4);
    message.SerializeWithCachedSizesToArray(reinterpret_cast<uint8_t*>(out_.data() + at + 4));
  }

  bool Flush() {
    for (size_t at = 0; at < out_.size();) {
      const ssize_t n = ::send(fd_.get(), out_.data() + at, out_.size() - at, MSG_NOSIGNAL);
      if (n <= 0) return false;
      at += static_cast<size_t>(n);
    }
    out_.clear();
    return true;
  }

  // Returns the next message; queued output is flushed before it waits.
  bool Get(BytesMsg* message) {
    for (;;) {
      if (end_ - begin_ >= 4) {
        uint32_t size = 0;
        std::memcpy(&size, in_.data() + begin_, 4);
        if (end_ - begin_ >= 4 + size) {
          message->ParseFromArray(in_.data() + begin_ + 4, static_cast<int>(size));
          begin_ += 4 + size;
          return true;
        }
      }
      if (!Flush()) return false;
      std::memmove(in_.data(), in_.data() + begin_, end_ - begin_);
      end_ -= begin_;
      begin_ = 0;
      const ssize_t n = ::recv(fd_.get(), in_.data() + end_, in_.size() - end_, 0);
      if (n <= 0) return false;
      end_ += static_cast<size_t>(n);
    }
  }

  void Shutdown() { ::shutdown(fd_.get(), SHUT_RDWR); }

 private:
  UniqueFd fd_;
  std::string out_;
  std::string in_ = std::string(256 << 10, '\0');
  size_t begin_ = 0;
  size_t end_ = 0;
};

class Floor final : public Subject {
 public:
  Floor() {
    UniqueFd listener(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        ::listen(listener.get(), 1) != 0 ||
        ::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
      std::abort();
    }
    UniqueFd client(::socket(AF_INET, SOCK_STREAM, 0));
    if (::connect(client.get(), reinterpret_cast<sockaddr*>(&address), size) != 0) std::abort();
    server_ = std::make_unique<Pipe>(UniqueFd(::accept(listener.get(), nullptr, nullptr)));
    client_ = std::make_unique<Pipe>(std::move(client));
    thread_ = std::thread([this] { Serve(); });
  }
  ~Floor() override {
    client_->Shutdown();
    thread_.join();
  }

  EchoResult Echo(const EchoCase& c) override {
    EchoMeter meter(c);
    BytesMsg message;
    BytesMsg answer;
    message.set_payload(std::string(c.size, 'x'));
    std::deque<Instant> starts;
    int left = c.calls;
    const auto start_one = [&] {
      if (left == 0) return;
      --left;
      starts.push_back(Now());
      client_->Put(message);
    };
    meter.Begin();
    for (int i = 0; i < c.outstanding; ++i) start_one();
    while (meter.done() < c.calls) {
      if (!client_->Get(&answer)) std::abort();
      meter.Add(starts.front(), false);
      starts.pop_front();
      start_one();
    }
    return meter.End();
  }

  StreamResult Stream(uint32_t count, uint32_t size) override {
    BytesMsg message;
    message.set_payload(std::string(size, 'x'));
    message.set_slow_us(count);  // here: number of messages to send back
    const double cpu = CpuUs();
    const Instant begun = Now();
    client_->Put(message);
    for (uint32_t i = 0; i < count; ++i) {
      if (!client_->Get(&message)) std::abort();
    }
    const double seconds = std::chrono::duration<double>(Now() - begun).count();
    return {count / seconds, (CpuUs() - cpu) / count};
  }

 private:
  void Serve() {
    BytesMsg message;
    while (server_->Get(&message)) {
      const uint32_t count = std::max(1U, message.slow_us());
      message.clear_slow_us();
      for (uint32_t i = 0; i < count; ++i) {
        server_->Put(message);
        if (i % 64 == 63) server_->Flush();
      }
    }
  }

  std::unique_ptr<Pipe> server_;
  std::unique_ptr<Pipe> client_;
  std::thread thread_;
};

}  // namespace

std::unique_ptr<Subject> MakeFloor() { return std::make_unique<Floor>(); }

}  // namespace zem::bench
