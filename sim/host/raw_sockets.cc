#include "sim/host/raw_sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/write.hpp>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <set>

#include "platform/core/poll.h"
#include "platform/core/unix_socket.h"

namespace zem::sim {
namespace {

using boost::asio::ip::tcp;
using boost::system::error_code;

constexpr size_t kMaxReceived = 64 * 1024;

UniqueFd Connect(const std::string& target, std::string* error) {
  UniqueFd fd;
  int failure = 0;
  if (target.rfind('/', 0) == 0) {
    fd = OpenUnixStream();
    failure = fd ? ConnectUnix(fd.get(), target) : errno;
  } else {
    uint16_t port = 0;
    const auto [end, bad] = std::from_chars(target.data(), target.data() + target.size(), port);
    if (bad != std::errc() || end != target.data() + target.size()) {
      *error = "neither a port nor a path: " + target;
      return {};
    }
    fd.Reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    failure =
        ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ? 0 : errno;
  }
  if (failure == 0) return fd;
  *error = target + ": " + std::strerror(failure);
  return {};
}

}  // namespace

RawExchange ExchangeRaw(const std::string& target, const std::string& bytes, bool leave, Duration timeout) {
  RawExchange exchange;
  const UniqueFd fd = Connect(target, &exchange.error);
  if (!fd) return exchange;
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = ::send(fd.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;  // the peer closed the connection; the read reports that
    sent += static_cast<size_t>(n);
  }
  if (leave) return exchange;
  const TimePoint deadline = Clock::Process().Now() + timeout;
  std::array<char, 4096> buffer;
  while (!exchange.closed && exchange.received.size() < kMaxReceived) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::Process().Now()).count();
    pollfd wait{fd.get(), POLLIN, 0};
    if (left <= 0 || PollIdle(&wait, 1, static_cast<int>(left)) == 0) break;
    const ssize_t n = ::recv(fd.get(), buffer.data(), buffer.size(), 0);
    if (n > 0) {
      exchange.received.append(buffer.data(), static_cast<size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      exchange.closed = true;
    }
  }
  return exchange;
}

class RawListeners::Listener : public std::enable_shared_from_this<Listener> {
 public:
  Listener(boost::asio::io_context& io, uint16_t port, std::string greeting)
      : strand_(boost::asio::make_strand(io)),
        acceptor_(strand_, tcp::endpoint(boost::asio::ip::address_v4::loopback(), port)),
        greeting_(std::move(greeting)) {}

  void Accept() {
    acceptor_.async_accept(strand_, [self = shared_from_this()](const error_code& error, tcp::socket socket) {
      if (error) return;
      ++self->connections_;
      auto client = std::make_shared<tcp::socket>(std::move(socket));
      self->clients_.insert(client);
      boost::asio::async_write(*client, boost::asio::buffer(self->greeting_),
                               [self, client](const error_code&, size_t) { self->Read(client); });
      self->Accept();
    });
  }

  void Close() {
    boost::asio::post(strand_, [self = shared_from_this()] {
      error_code ignored;
      self->acceptor_.close(ignored);
      for (const auto& client : self->clients_) client->close(ignored);
      self->clients_.clear();
    });
  }

  uint64_t connections() const { return connections_; }

 private:
  void Read(const std::shared_ptr<tcp::socket>& client) {
    client->async_read_some(boost::asio::buffer(unread_),
                            [self = shared_from_this(), client](const error_code& error, size_t) {
                              if (!error) return self->Read(client);
                              self->clients_.erase(client);
                            });
  }

  boost::asio::strand<boost::asio::io_context::executor_type> strand_;
  tcp::acceptor acceptor_;
  const std::string greeting_;
  std::set<std::shared_ptr<tcp::socket>> clients_;
  std::array<char, 4096> unread_{};  // received bytes, which are discarded
  std::atomic<uint64_t> connections_{0};
};

RawListeners::RawListeners(boost::asio::io_context& io) : io_(io) {}

RawListeners::~RawListeners() = default;

void RawListeners::Listen(uint16_t port, const std::string& greeting) {
  const auto listener = std::make_shared<Listener>(io_, port, greeting);
  std::lock_guard lock(mutex_);
  listeners_[port] = listener;
  listener->Accept();
}

bool RawListeners::Close(uint16_t port) {
  std::lock_guard lock(mutex_);
  const auto found = listeners_.find(port);
  if (found == listeners_.end()) return false;
  found->second->Close();
  listeners_.erase(found);
  return true;
}

std::map<uint16_t, uint64_t> RawListeners::Connections() const {
  std::lock_guard lock(mutex_);
  std::map<uint16_t, uint64_t> counts;
  for (const auto& [port, listener] : listeners_) counts[port] = listener->connections();
  return counts;
}

}  // namespace zem::sim
