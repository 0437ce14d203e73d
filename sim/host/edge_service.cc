#include "sim/host/edge_service.h"

#include <arpa/inet.h>
#include <cjson/cJSON.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <system_error>

#include "platform/core/poll.h"
#include "sim/control/json.h"

namespace zem::sim {
namespace {

constexpr const char* kTarget = "PUT /api/v1/node/maintenance-mode HTTP/1.1";
constexpr size_t kLongestRequest = 64 << 10;
constexpr Duration kPatience = std::chrono::seconds(60);

void Check(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
}

std::optional<std::string> Header(const std::string& request, const std::string& name) {
  const size_t begin = request.find("\r\n" + name + ": ");
  if (begin == std::string::npos || begin > request.find("\r\n\r\n")) return std::nullopt;
  const size_t value = begin + 2 + name.size() + 2;
  return request.substr(value, request.find("\r\n", value) - value);
}

std::string Response(unsigned status, const std::string& body) {
  return "HTTP/1.1 " + std::to_string(status) + (status == 200 ? " OK" : " Refused") +
         "\r\nServer: edge\r\nContent-Type: application/json\r\nConnection: close\r\n\r\n" + body;
}

void Send(int connection, const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t part = ::send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (part < 0) return;  // the client has closed the connection
    sent += static_cast<size_t>(part);
  }
}

}  // namespace

EdgeService::EdgeService(uint16_t port) {
  state_.port = port;
  Start();
}

EdgeService::~EdgeService() { Stop(); }

void EdgeService::Start() {
  if (listener_) return;
  UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  const std::lock_guard lock(mutex_);
  address.sin_port = htons(state_.port);
  Check(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), size), "edge service");
  Check(::listen(listener.get(), 8), "edge service");
  Check(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), "edge service");
  state_.port = ntohs(address.sin_port);
  state_.listening = true;
  wake_ = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  listener_ = std::move(listener);
  thread_ = NativeThread([this] { Serve(); });
}

void EdgeService::Stop() {
  if (!listener_) return;
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t full_is_awake = ::write(wake_.get(), &one, sizeof(one));
  thread_.Join();
  listener_.Reset();
  const std::lock_guard lock(mutex_);
  state_.listening = false;
}

void EdgeService::Add(const Fault& fault, int count) {
  const std::lock_guard lock(mutex_);
  for (int i = 0; i < count; ++i) faults_.push_back(fault);
}

EdgeService::State EdgeService::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

// Returns false when the service stops or the time is over.
bool EdgeService::WaitFor(int fd, Duration limit) const {
  pollfd waits[2] = {{fd, POLLIN, 0}, {wake_.get(), POLLIN, 0}};
  const int ready = PollUntil(waits, 2, Clock::Process().Now() + limit);
  return ready > 0 && waits[1].revents == 0;
}

void EdgeService::Serve() {
  for (;;) {
    pollfd waits[2] = {{listener_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
    if (PollIdle(waits, 2, -1) < 0 && errno != EINTR) return;
    if (waits[1].revents != 0) return;
    const UniqueFd connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (connection) Answer(connection.get());
  }
}

bool EdgeService::ReadRequest(int connection, std::string* request) const {
  for (size_t whole = kLongestRequest; request->size() < whole;) {
    char part[4096];
    if (!WaitFor(connection, kPatience)) return false;
    const ssize_t got = ::recv(connection, part, sizeof(part), 0);
    if (got <= 0) return false;
    request->append(part, static_cast<size_t>(got));
    const size_t headers = request->find("\r\n\r\n");
    if (headers == std::string::npos) continue;
    const auto length = Header(*request, "Content-Length");
    whole = headers + 4 + (length ? std::strtoul(length->c_str(), nullptr, 10) : 0);
  }
  return true;
}

void EdgeService::Answer(int connection) {
  std::string request;
  const bool whole = ReadRequest(connection, &request);
  std::optional<Fault> fault;
  {
    const std::lock_guard lock(mutex_);
    if (!whole) {
      state_.violations.push_back("half a request: " + request);
      return;
    }
    state_.requests.push_back(request);
    if (!faults_.empty()) {
      fault = std::move(faults_.front());
      faults_.pop_front();
    }
  }
  if (fault && fault->kind == Fault::Kind::kStatus) {
    return Send(connection, Response(fault->status, "{\"error_message\": \"" + fault->text + "\"}"));
  }
  const std::string answer = Carry(request);
  if (!fault) return Send(connection, answer);
  switch (fault->kind) {
    case Fault::Kind::kBody:
      return Send(connection, Response(200, fault->text));
    case Fault::Kind::kRaw:
      return Send(connection, fault->text);
    case Fault::Kind::kHold:
      Send(connection, fault->text);
      [[fallthrough]];
    case Fault::Kind::kNever:
      WaitFor(connection, std::chrono::hours(1));
      return;
    case Fault::Kind::kLate:
      // A client that has disconnected by then gets no answer.
      if (!WaitFor(connection, fault->delay)) Send(connection, answer);
      return;
    default:
      return;
  }
}

std::string EdgeService::Carry(const std::string& request) {
  const auto refuse = [this](const std::string& why) {
    state_.violations.push_back(why);
    return Response(400, "{\"error_message\": \"" + why + "\"}");
  };
  const std::lock_guard lock(mutex_);
  if (request.substr(0, request.find("\r\n")) != kTarget) return refuse("not ours");
  if (Header(request, "Host") != "127.0.0.1") return refuse("no host");
  if (!Header(request, "Content-Length")) return refuse("no length");
  if (Header(request, "Content-Type").value_or("").find("application/json") != 0)
    return refuse("no JSON type");
  const size_t body = request.find("\r\n\r\n") + 4;
  const Json json(cJSON_Parse(request.c_str() + body));
  const cJSON* const mode = cJSON_GetObjectItemCaseSensitive(json.get(), "maintenance_mode");
  if (!cJSON_IsBool(mode) || !cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(json.get(), "notify_mpa"))) {
    return refuse("no request");
  }
  state_.maintenance = cJSON_IsTrue(mode) != 0;
  return Response(
      200, std::string("{\"maintenance_mode\": \"") + (state_.maintenance ? "enabled" : "disabled") + "\"}");
}

}  // namespace zem::sim
