#include "agent/metrics_socket.h"

#include <sys/stat.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/beast/core/basic_stream.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <optional>
#include <utility>

#include "framework/log/log.h"
#include "platform/core/loop_monitor.h"
#include "platform/core/thread.h"

namespace zem::Tarvik {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using Protocol = asio::local::stream_protocol;
using Stream = beast::basic_stream<Protocol>;

constexpr LogSource kLog{"tarvik", "framework"};

constexpr size_t kMostConnections = 16;
constexpr uint32_t kMostHeaderBytes = 8 << 10;
constexpr auto kPatience = std::chrono::seconds(5);
constexpr mode_t kOwnerAndGroup = 0660;
constexpr const char* kTarget = "/metrics";
constexpr const char* kTextForm = "text/plain; version=0.0.4; charset=utf-8";

}  // namespace

class MetricsSocket::Server {
 public:
  Server(const std::string& path, const std::function<std::string()>& report)
      : path_(path), report_(report), acceptor_(io_) {}
  ~Server() {
    io_.stop();
    if (thread_.joinable()) thread_.Join();
    if (bound_) ::unlink(path_.c_str());
  }

  void Start() {
    struct stat facts {};
    if (::lstat(path_.c_str(), &facts) == 0 && S_ISSOCK(facts.st_mode)) RemoveOld();
    acceptor_.open(Protocol());
    acceptor_.bind(Protocol::endpoint(path_));
    bound_ = true;
    if (::chmod(path_.c_str(), kOwnerAndGroup) != 0)
      throw std::system_error(errno, std::generic_category(), "chmod");
    acceptor_.listen();
    Accept();
    NativeThread::Options options;
    options.name = "metrics";
    thread_ = NativeThread(std::move(options), [this] {
      const LoopThread loop("metrics", LoopKind::kPrompt);
      io_.run();
    });
  }

 private:
  // A daemon before this one may have left its socket; one that somebody serves stays.
  void RemoveOld() {
    Protocol::socket probe(io_);
    beast::error_code error;
    probe.connect(Protocol::endpoint(path_), error);
    if (!error) throw std::runtime_error("another process serves there");
    ::unlink(path_.c_str());
  }

  // One client, for as many requests as it has.
  struct Client {
    explicit Client(Protocol::socket socket) : stream(std::move(socket)) {}
    Stream stream;
    beast::flat_buffer buffer;
    std::optional<http::request_parser<http::empty_body>> request;
    http::response<http::string_body> answer;
  };
  using SharedClient = std::shared_ptr<Client>;

  void Accept() {
    acceptor_.async_accept([this](const beast::error_code& error, Protocol::socket socket) {
      // Without a descriptor the accept fails again at once.
      if (error == asio::error::operation_aborted) return;
      if (!error && clients_ < kMostConnections) {
        const SharedClient client(new Client(std::move(socket)), [this](Client* gone) {
          delete gone;
          --clients_;
        });
        ++clients_;
        Read(client);
      }
      if (error) {
        pause_.expires_after(kPause);
        pause_.async_wait([this](const beast::error_code& stopped) {
          if (!stopped) Accept();
        });
        return;
      }
      Accept();
    });
  }

  void Read(const SharedClient& client) {
    client->request.emplace();
    client->request->header_limit(kMostHeaderBytes);
    client->stream.expires_after(kPatience);
    http::async_read(client->stream, client->buffer, *client->request,
                     [this, client](const beast::error_code& error, size_t) {
                       if (!error) Answer(client);
                     });
  }

  void Answer(const SharedClient& client) {
    const auto& request = client->request->get();
    const LoopStep step("answer");
    client->answer = {};
    client->answer.version(request.version());
    client->answer.keep_alive(request.keep_alive());
    client->answer.set(http::field::content_type, kTextForm);
    const auto target = request.target().substr(0, request.target().find('?'));
    if (request.method() != http::verb::get && request.method() != http::verb::head) {
      client->answer.result(http::status::method_not_allowed);
      client->answer.set(http::field::allow, "GET, HEAD");
      client->answer.body() = "only GET is served\n";
    } else if (target != kTarget) {
      client->answer.result(http::status::not_found);
      client->answer.body() = "the metrics are at /metrics\n";
    } else {
      client->answer.result(http::status::ok);
      client->answer.body() = report_();
    }
    client->answer.prepare_payload();
    // The length stays that of the answer to a GET.
    if (request.method() == http::verb::head) client->answer.body().clear();
    client->stream.expires_after(kPatience);
    http::async_write(client->stream, client->answer, [this, client](const beast::error_code& error, size_t) {
      if (!error && client->answer.keep_alive()) Read(client);
    });
  }

  static constexpr auto kPause = std::chrono::milliseconds(100);

  const std::string& path_;
  const std::function<std::string()>& report_;
  bool bound_ = false;
  size_t clients_ = 0;
  asio::io_context io_;
  Protocol::acceptor acceptor_;
  asio::steady_timer pause_{io_};
  NativeThread thread_;
};

MetricsSocket::MetricsSocket(std::string path, std::function<std::string()> report)
    : path_(std::move(path)), report_(std::move(report)) {}

MetricsSocket::~MetricsSocket() = default;

bool MetricsSocket::Start() {
  try {
    server_ = std::make_unique<Server>(path_, report_);
    server_->Start();
    ZLOG_INFO("The metrics are served on %s", path_.c_str());
    return true;
  } catch (const std::exception& error) {
    server_.reset();
    ZLOG_ERROR("OPS00302", "The metrics cannot be served on %s: %s", path_.c_str(), error.what());
    return false;
  }
}

}  // namespace zem::Tarvik
