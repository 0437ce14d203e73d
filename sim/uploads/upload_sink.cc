#include "sim/uploads/upload_sink.h"

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <array>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <filesystem>
#include <fstream>
#include <list>
#include <mutex>
#include <optional>
#include <sstream>
#include <utility>

#include "platform/core/thread.h"
#include "sim/kafka/certificates.h"

namespace zem::sim {
namespace {

namespace fs = std::filesystem;
namespace http = boost::beast::http;
using boost::asio::ip::tcp;
using Error = boost::system::error_code;
using TlsStream = boost::asio::ssl::stream<tcp::socket>;

constexpr uint64_t kLongestBody = 4ULL << 30U;
constexpr int kCertificateDays = 30;

std::string Hexadecimal(const unsigned char* bytes, size_t size) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < size; ++i) {
    text += kDigits[bytes[i] >> 4U];
    text += kDigits[bytes[i] & 0xFU];
  }
  return text;
}

std::string Sha256(std::istream& content) {
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> digest(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  std::array<char, 65536> piece{};
  std::array<unsigned char, EVP_MAX_MD_SIZE> sum{};
  unsigned size = 0;
  EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr);
  while (content.read(piece.data(), piece.size()), content.gcount() > 0) {
    EVP_DigestUpdate(digest.get(), piece.data(), static_cast<size_t>(content.gcount()));
  }
  EVP_DigestFinal_ex(digest.get(), sum.data(), &size);
  return Hexadecimal(sum.data(), size);
}

std::string Thumbprint(const std::string& pem) {
  const std::unique_ptr<BIO, decltype(&BIO_free)> memory(BIO_new_mem_buf(pem.data(), -1), &BIO_free);
  const std::unique_ptr<X509, decltype(&X509_free)> certificate(
      PEM_read_bio_X509(memory.get(), nullptr, nullptr, nullptr), &X509_free);
  std::array<unsigned char, EVP_MAX_MD_SIZE> sum{};
  unsigned size = 0;
  if (!certificate || X509_digest(certificate.get(), EVP_sha256(), sum.data(), &size) != 1) {
    throw std::runtime_error("the certificate cannot be read");
  }
  return Hexadecimal(sum.data(), size);
}

}  // namespace

class UploadSink::Impl : public std::enable_shared_from_this<Impl> {
 public:
  Impl(std::string folder, uint16_t port) : folder_(std::move(folder)), acceptor_(io_) {
    fs::create_directories(folder_);
    state_.port = port;
    NewCertificate();
    Open();
  }

  void NewCertificate() {
    const CertificateAuthority authority("manager");
    const KeyPair pair = authority.Sign("manager", "127.0.0.1", kCertificateDays);
    auto context = std::make_shared<boost::asio::ssl::context>(boost::asio::ssl::context::tls_server);
    context->use_certificate_chain(boost::asio::buffer(pair.certificate));
    context->use_private_key(boost::asio::buffer(pair.key), boost::asio::ssl::context::pem);
    const std::lock_guard lock(mutex_);
    context_ = std::move(context);
    state_.thumbprint = Thumbprint(pair.certificate);
  }

  void Open() {
    const std::lock_guard lock(mutex_);
    const tcp::endpoint endpoint(boost::asio::ip::address_v4::loopback(), state_.port);
    acceptor_.open(endpoint.protocol());
    acceptor_.set_option(tcp::acceptor::reuse_address(true));
    acceptor_.bind(endpoint);
    acceptor_.listen();
    state_.port = acceptor_.local_endpoint().port();
  }

  void Accept();
  void CloseSessions();

  // How the request that begins now is answered, and under which number it is kept.
  struct Begun {
    Answers answers = Answers::kServe;
    unsigned status = 201;
    size_t index = 0;
    std::string file;
  };
  Begun Begin(const std::string& target, const std::string& id) {
    const std::lock_guard lock(mutex_);
    Begun begun;
    begun.index = state_.uploads.size();
    begun.file = folder_ + "/" + std::to_string(begun.index + 1);
    if (count_ != 0) {
      begun.answers = answers_;
      if (answers_ == Answers::kStatus) begun.status = status_;
      --count_;
    }
    state_.uploads.push_back({.target = target, .id = id, .file = begun.file});
    return begun;
  }
  void End(const Begun& begun, unsigned status) {
    std::ifstream content(begun.file, std::ios::binary);
    const std::string sum = Sha256(content);
    std::error_code ignored;
    const auto size = fs::file_size(begun.file, ignored);
    const std::lock_guard lock(mutex_);
    if (begun.index >= state_.uploads.size()) return;  // cleared meanwhile
    Upload& upload = state_.uploads[begun.index];
    upload.size = ignored ? 0 : size;
    upload.status = status;
    upload.sha256 = sum;
  }
  void Violation(std::string text) {
    const std::lock_guard lock(mutex_);
    state_.violations.push_back(std::move(text));
  }

  const std::string folder_;
  boost::asio::io_context io_;
  // Keeps the thread while nothing listens.
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> open_ =
      boost::asio::make_work_guard(io_);
  tcp::acceptor acceptor_;                      // of the sink's thread
  std::list<std::weak_ptr<Session>> sessions_;  // of the sink's thread

  std::mutex mutex_;  // guards what follows
  std::shared_ptr<boost::asio::ssl::context> context_;
  Answers answers_ = Answers::kServe;
  unsigned status_ = 500;
  int count_ = 0;
  State state_;

  NativeThread thread_;
};

// One connection: one request.
class UploadSink::Session : public std::enable_shared_from_this<Session> {
 public:
  Session(std::shared_ptr<Impl> sink, std::shared_ptr<boost::asio::ssl::context> context, tcp::socket socket)
      : sink_(std::move(sink)), context_(std::move(context)), stream_(std::move(socket), *context_) {}

  void Start() {
    stream_.async_handshake(boost::asio::ssl::stream_base::server,
                            [self = shared_from_this()](const Error& error) {
                              if (error) return self->NoRequest();
                              self->ReadHeader();
                            });
  }

  void Close() {
    Error ignored;
    stream_.lowest_layer().close(ignored);
  }

 private:
  void NoRequest() {
    const std::lock_guard lock(sink_->mutex_);
    ++sink_->state_.without_request;
  }

  void ReadHeader() {
    header_.emplace();
    header_->body_limit(kLongestBody);
    http::async_read_header(
        stream_, buffer_, *header_, [self = shared_from_this()](const Error& error, size_t) {
          if (error == http::error::end_of_stream || error == boost::asio::ssl::error::stream_truncated) {
            return self->NoRequest();
          }
          if (error) return self->sink_->Violation("no HTTP: " + error.message());
          self->ReadBody();
        });
  }

  void ReadBody() {
    const auto& request = header_->get();
    const std::string target(request.target());
    if (request.method() != http::verb::put || target.empty() || target[0] != '/') {
      sink_->Violation("not a file: " + std::string(request.method_string()) + " " + target);
      return Answer(405);
    }
    begun_ = sink_->Begin(target, std::string(request["X-Upload-Id"]));
    if (begun_.answers == Answers::kClose) return Close();
    body_.emplace(std::move(*header_));
    Error error;
    body_->get().body().open(begun_.file.c_str(), boost::beast::file_mode::write, error);
    if (error) return sink_->Violation(begun_.file + ": " + error.message());
    http::async_read(stream_, buffer_, *body_, [self = shared_from_this()](const Error& error, size_t) {
      if (error) return;  // the client broke off; the record shows a file without a status
      self->body_->get().body().close();
      if (self->begun_.answers == Answers::kHold) return self->WaitForEnd();
      self->sink_->End(self->begun_, self->begun_.status);
      self->Answer(self->begun_.status);
    });
  }

  void WaitForEnd() {
    stream_.async_read_some(boost::asio::buffer(rest_),
                            [self = shared_from_this()](const Error& error, size_t) {
                              if (!error) self->WaitForEnd();
                            });
  }

  void Answer(unsigned status) {
    answer_.emplace();
    answer_->result(status);
    answer_->set(http::field::connection, "close");
    answer_->content_length(0);
    http::async_write(stream_, *answer_, [self = shared_from_this()](const Error&, size_t) {
      self->stream_.async_shutdown([self](const Error&) { self->Close(); });
    });
  }

  const std::shared_ptr<Impl> sink_;
  const std::shared_ptr<boost::asio::ssl::context> context_;
  TlsStream stream_;
  boost::beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::empty_body>> header_;
  std::optional<http::request_parser<http::file_body>> body_;
  std::optional<http::response<http::empty_body>> answer_;
  std::array<char, 512> rest_{};
  Impl::Begun begun_;
};

void UploadSink::Impl::Accept() {
  acceptor_.async_accept([self = shared_from_this()](const Error& error, tcp::socket socket) {
    if (error == boost::asio::error::operation_aborted) return;
    if (!error) {
      std::shared_ptr<boost::asio::ssl::context> context;
      {
        const std::lock_guard lock(self->mutex_);
        context = self->context_;
      }
      const auto session = std::make_shared<Session>(self, std::move(context), std::move(socket));
      std::erase_if(self->sessions_, [](const std::weak_ptr<Session>& old) { return old.expired(); });
      self->sessions_.push_back(session);
      session->Start();
    }
    self->Accept();
  });
}

void UploadSink::Impl::CloseSessions() {
  for (const std::weak_ptr<Session>& weak : sessions_) {
    if (const auto session = weak.lock()) session->Close();
  }
}

UploadSink::UploadSink(std::string folder, uint16_t port)
    : impl_(std::make_shared<Impl>(std::move(folder), port)) {
  impl_->Accept();
  // Its work is not the agent's: whoever waits for an upload waits for the process that sends it.
  impl_->thread_ =
      NativeThread({.name = "uploads", .counts_as_work = false}, [impl = impl_.get()] { impl->io_.run(); });
}

UploadSink::~UploadSink() {
  Listen(false);
  impl_->open_.reset();
  impl_->thread_.Join();
}

void UploadSink::SetAnswers(Answers answers, int count, unsigned status) {
  const std::lock_guard lock(impl_->mutex_);
  impl_->answers_ = answers;
  impl_->count_ = answers == Answers::kServe ? 0 : count;
  impl_->status_ = status;
}

void UploadSink::Listen(bool on) {
  boost::asio::post(impl_->io_, [impl = impl_, on] {
    if (on == impl->acceptor_.is_open()) return;
    if (on) {
      impl->Open();
      return impl->Accept();
    }
    Error ignored;
    impl->acceptor_.close(ignored);
    impl->CloseSessions();
  });
}

void UploadSink::ChangeCertificate() { impl_->NewCertificate(); }

UploadSink::State UploadSink::state() const {
  const std::lock_guard lock(impl_->mutex_);
  return impl_->state_;
}

void UploadSink::Clear() {
  const std::lock_guard lock(impl_->mutex_);
  for (const Upload& upload : impl_->state_.uploads) {
    std::error_code ignored;
    fs::remove(upload.file, ignored);
  }
  impl_->state_.uploads.clear();
  impl_->state_.without_request = 0;
}

}  // namespace zem::sim
