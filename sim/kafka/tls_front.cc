#include "sim/kafka/tls_front.h"

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/ssl/impl/src.hpp>
#include <boost/asio/write.hpp>
#include <list>
#include <mutex>
#include <utility>

namespace zem::sim {
namespace {

using boost::asio::ip::tcp;
using Error = boost::system::error_code;
using TlsStream = boost::asio::ssl::stream<tcp::socket>;

constexpr size_t kPart = 65536;
constexpr uint32_t kLongestFrame = 64U << 20U;
constexpr std::string_view kHost = "127.0.0.1";

uint32_t BigEndian(std::string_view bytes) {
  uint32_t number = 0;
  for (size_t i = 0; i < 4; ++i) number = number << 8U | static_cast<unsigned char>(bytes[i]);
  return number;
}

// The length of the whole frames at the start of `bytes`.
size_t WholeFrames(std::string_view bytes) {
  size_t end = 0;
  while (bytes.size() - end >= 4) {
    const uint32_t length = BigEndian(bytes.substr(end));
    if (length > kLongestFrame || bytes.size() - end - 4 < length) break;
    end += 4 + length;
  }
  return end;
}

std::shared_ptr<boost::asio::ssl::context> MakeContext(const KeyPair& pair, const std::string& authority) {
  auto context = std::make_shared<boost::asio::ssl::context>(boost::asio::ssl::context::tls_server);
  context->use_certificate_chain(boost::asio::buffer(pair.certificate));
  context->use_private_key(boost::asio::buffer(pair.key), boost::asio::ssl::context::pem);
  context->add_certificate_authority(boost::asio::buffer(authority));
  context->set_verify_mode(boost::asio::ssl::verify_peer | boost::asio::ssl::verify_fail_if_no_peer_cert);
  return context;
}

}  // namespace

void ReplacePorts(const std::map<uint16_t, uint16_t>& ports, std::string* frames) {
  for (size_t at = frames->find(kHost); at != std::string::npos; at = frames->find(kHost, at)) {
    at += kHost.size();
    if (frames->size() - at < 4) return;
    const auto front = ports.find(static_cast<uint16_t>(BigEndian(std::string_view(*frames).substr(at))));
    if (front == ports.end()) continue;
    (*frames)[at + 2] = static_cast<char>(front->second >> 8U);
    (*frames)[at + 3] = static_cast<char>(front->second & 0xFFU);
  }
}

class TlsFront::Impl : public std::enable_shared_from_this<Impl> {
 public:
  Impl(boost::asio::io_context& io, uint16_t broker_port, std::string authority)
      : io_(io), broker_port_(broker_port), authority_(std::move(authority)), acceptor_(io) {
    Listen();
  }

  void Listen() {
    const tcp::endpoint endpoint(boost::asio::ip::address_v4::loopback(), port_);
    acceptor_.open(endpoint.protocol());
    acceptor_.set_option(tcp::acceptor::reuse_address(true));
    acceptor_.bind(endpoint);
    acceptor_.listen();
    if (port_ == 0) port_ = acceptor_.local_endpoint().port();
  }

  void Accept();
  void CloseSessions();
  void Remove(Session* session);

  boost::asio::io_context& io_;
  const uint16_t broker_port_;
  const std::string authority_;
  uint16_t port_ = 0;

  // The rest belongs to the thread that runs `io_`.
  tcp::acceptor acceptor_;
  std::shared_ptr<boost::asio::ssl::context> context_;
  std::map<uint16_t, uint16_t> ports_;
  std::list<std::weak_ptr<Session>> sessions_;
  bool refusing_ = false;
  bool stuck_ = false;

  mutable std::mutex mutex_;  // guards counters_
  Counters counters_;
};

// One client's connection and the one to the broker that belongs to it.
class TlsFront::Session : public std::enable_shared_from_this<Session> {
 public:
  Session(std::shared_ptr<Impl> front, tcp::socket socket)
      : front_(std::move(front)),
        context_(front_->context_),
        client_(std::move(socket), *context_),
        broker_(front_->io_) {}
  ~Session() {
    if (!open_) return;
    std::lock_guard lock(front_->mutex_);
    --front_->counters_.connected;
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void Start() {
    client_.async_handshake(boost::asio::ssl::stream_base::server,
                            [self = shared_from_this()](const Error& error) { self->Greeted(error); });
  }

  void Close() {
    Error ignored;
    client_.lowest_layer().close(ignored);
    broker_.close(ignored);
  }

  void Resume() {
    if (open_ && !reading_) ReadClient();
  }

 private:
  void Greeted(const Error& error) {
    {
      std::lock_guard lock(front_->mutex_);
      ++(error ? front_->counters_.failed_handshakes : front_->counters_.handshakes);
    }
    if (error || front_->refusing_) return Close();
    Error failed;
    broker_.connect({boost::asio::ip::address_v4::loopback(), front_->broker_port_}, failed);
    if (failed) return Close();
    {
      std::lock_guard lock(front_->mutex_);
      ++front_->counters_.connected;
    }
    open_ = true;
    ReadClient();
    ReadBroker();
  }

  void ReadClient() {
    reading_ = !front_->stuck_;
    if (!reading_) return;
    client_.async_read_some(boost::asio::buffer(from_client_),
                            [self = shared_from_this()](const Error& error, size_t size) {
                              if (error) return self->Close();
                              self->WriteBroker(size);
                            });
  }

  void WriteBroker(size_t size) {
    boost::asio::async_write(broker_, boost::asio::buffer(from_client_, size),
                             [self = shared_from_this()](const Error& error, size_t) {
                               if (error) return self->Close();
                               self->ReadClient();
                             });
  }

  void ReadBroker() {
    broker_.async_read_some(boost::asio::buffer(from_broker_),
                            [self = shared_from_this()](const Error& error, size_t size) {
                              if (error) return self->Close();
                              self->unsent_.append(self->from_broker_.data(), size);
                              self->WriteClient();
                            });
  }

  void WriteClient() {
    const size_t whole = WholeFrames(unsent_);
    if (whole == 0) return ReadBroker();
    sending_ = unsent_.substr(0, whole);
    unsent_.erase(0, whole);
    ReplacePorts(front_->ports_, &sending_);
    boost::asio::async_write(client_, boost::asio::buffer(sending_),
                             [self = shared_from_this()](const Error& error, size_t) {
                               if (error) return self->Close();
                               self->ReadBroker();
                             });
  }

  const std::shared_ptr<Impl> front_;
  const std::shared_ptr<boost::asio::ssl::context> context_;
  TlsStream client_;
  tcp::socket broker_;
  std::array<char, kPart> from_client_{};
  std::array<char, kPart> from_broker_{};
  std::string unsent_;
  std::string sending_;
  bool open_ = false;
  bool reading_ = false;
};

void TlsFront::Impl::Accept() {
  acceptor_.async_accept([self = shared_from_this()](const Error& error, tcp::socket socket) {
    if (error == boost::asio::error::operation_aborted) return;
    if (!error && self->context_) {
      const auto session = std::make_shared<Session>(self, std::move(socket));
      std::erase_if(self->sessions_, [](const std::weak_ptr<Session>& old) { return old.expired(); });
      self->sessions_.push_back(session);
      session->Start();
    }
    self->Accept();
  });
}

void TlsFront::Impl::CloseSessions() {
  for (const std::weak_ptr<Session>& weak : sessions_) {
    if (const auto session = weak.lock()) session->Close();
  }
}

TlsFront::TlsFront(boost::asio::io_context& io, uint16_t broker_port, std::string authority)
    : impl_(std::make_shared<Impl>(io, broker_port, std::move(authority))) {
  boost::asio::post(io, [impl = impl_] { impl->Accept(); });
}

TlsFront::~TlsFront() { SetDown(true); }

uint16_t TlsFront::port() const { return impl_->port_; }
uint16_t TlsFront::broker_port() const { return impl_->broker_port_; }

void TlsFront::SetCertificate(KeyPair pair) {
  boost::asio::post(impl_->io_, [impl = impl_, context = MakeContext(pair, impl_->authority_)] {
    impl->context_ = context;
  });
}

void TlsFront::SetPorts(std::map<uint16_t, uint16_t> ports) {
  boost::asio::post(impl_->io_, [impl = impl_, ports = std::move(ports)] { impl->ports_ = ports; });
}

void TlsFront::SetDown(bool down) {
  boost::asio::post(impl_->io_, [impl = impl_, down] {
    if (down == !impl->acceptor_.is_open()) return;
    if (down) {
      Error ignored;
      impl->acceptor_.close(ignored);
      return impl->CloseSessions();
    }
    impl->Listen();
    impl->Accept();
  });
}

void TlsFront::SetRefusing(bool refusing) {
  boost::asio::post(impl_->io_, [impl = impl_, refusing] {
    impl->refusing_ = refusing;
    if (refusing) impl->CloseSessions();
  });
}

void TlsFront::SetStuck(bool stuck) {
  boost::asio::post(impl_->io_, [impl = impl_, stuck] {
    impl->stuck_ = stuck;
    for (const std::weak_ptr<Session>& weak : impl->sessions_) {
      if (const auto session = weak.lock(); session && !stuck) session->Resume();
    }
  });
}

TlsFront::Counters TlsFront::counters() const {
  std::lock_guard lock(impl_->mutex_);
  return impl_->counters_;
}

}  // namespace zem::sim
