#include "app/zema/edge/edge_service.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>

#include "framework/log/log.h"
#include "framework/process/error_text.h"
#include "framework/process/shutdown_pipe.h"
#include "platform/core/poll.h"
#include "platform/core/unique_fd.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "SendActionToEdgeService";

constexpr const char* kPath = "/api/v1/node/maintenance-mode";
constexpr std::string_view kVersion = "HTTP/1.";
constexpr std::string_view kEndOfLine = "\r\n";
constexpr std::string_view kEndOfHeaders = "\r\n\r\n";
constexpr unsigned kDone = 200;

std::string Reason(int error) { return Tarvik::Util::GetErrMsg(error); }

std::string_view LineAt(std::string_view text, size_t begin) {
  return text.substr(begin, text.find(kEndOfLine, begin) - begin);
}

bool SameWord(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// Parses a status line such as "HTTP/1.1 200 OK".
std::optional<unsigned> StatusOf(std::string_view line) {
  if (line.substr(0, kVersion.size()) != kVersion) return std::nullopt;
  const size_t blank = line.find(' ');
  if (blank == std::string_view::npos) return std::nullopt;
  unsigned status = 0;
  const char* const begin = line.data() + blank + 1;
  const auto [end, error] = std::from_chars(begin, line.data() + line.size(), status);
  if (error != std::errc() || end - begin != 3) return std::nullopt;
  return status;
}

// The size of the whole answer, once its headers are complete and specify it.
std::optional<size_t> WholeSize(std::string_view answer) {
  const size_t headers_end = answer.find(kEndOfHeaders);
  if (headers_end == std::string_view::npos) return std::nullopt;
  const std::string_view headers = answer.substr(0, headers_end);
  for (size_t begin = 0; begin < headers.size();) {
    const std::string_view line = LineAt(headers, begin);
    begin += line.size() + kEndOfLine.size();
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos || !SameWord(line.substr(0, colon), "Content-Length")) continue;
    const size_t digits = line.find_first_not_of(" \t", colon + 1);
    size_t length = 0;
    if (digits == std::string_view::npos ||
        std::from_chars(line.data() + digits, line.data() + line.size(), length).ec != std::errc() ||
        length > EdgeService::kLongestAnswer) {
      return std::nullopt;
    }
    return headers_end + kEndOfHeaders.size() + length;
  }
  return std::nullopt;
}

}  // namespace

// A socket with one deadline for all its operations.  A failure returns an error number.
class EdgeService::Connection {
 public:
  explicit Connection(Duration limit) : deadline_(Clock::Process().Now() + limit) {}

  int Open(const std::string& address, uint16_t port) {
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(port);
    if (::inet_pton(AF_INET, address.c_str(), &target.sin_addr) != 1) return EINVAL;
    socket_ = UniqueFd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket_) return errno;
    if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&target), sizeof(target)) == 0) return 0;
    if (errno != EINPROGRESS) return errno;
    if (const int result = Wait(POLLOUT); result != 0) return result;
    int error = 0;
    socklen_t size = sizeof(error);
    return ::getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
  }

  int Send(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent > 0) {
        bytes.remove_prefix(static_cast<size_t>(sent));
      } else if (errno == EAGAIN) {
        if (const int result = Wait(POLLOUT); result != 0) return result;
      } else if (errno != EINTR) {
        return errno;
      }
    }
    return 0;
  }

  // Reads to the end of the connection, or of the length that the headers specify.
  int Read(std::string* bytes) {
    char part[4096];
    for (;;) {
      if (const auto whole = WholeSize(*bytes); whole && bytes->size() >= *whole) return 0;
      const ssize_t got = ::recv(socket_.get(), part, sizeof(part), 0);
      if (got == 0) return 0;
      if (got > 0) {
        bytes->append(part, static_cast<size_t>(got));
        if (bytes->size() > kLongestAnswer) return EMSGSIZE;
      } else if (errno == EAGAIN) {
        if (const int result = Wait(POLLIN); result != 0) return result;
      } else if (errno != EINTR) {
        return errno;
      }
    }
  }

 private:
  int Wait(short events) const {
    pollfd waits[2] = {{socket_.get(), events, 0}, {Tarvik::fdShutdown[0], POLLIN, 0}};
    for (;;) {
      const int ready = PollUntil(waits, 2, deadline_);
      if (ready < 0 && errno == EINTR) continue;
      if (ready < 0) return errno;
      if (ready == 0) return ETIMEDOUT;
      return waits[1].revents != 0 ? ECANCELED : 0;
    }
  }

  const TimePoint deadline_;
  UniqueFd socket_;
};

std::string EdgeService::Request(bool on) const {
  const std::string body =
      std::string("{\"maintenance_mode\": ") + (on ? "true" : "false") + ", \"notify_mpa\": true}";
  return std::string("PUT ") + kPath + " HTTP/1.1\r\nHost: " + settings_.address +
         "\r\nContent-Type: application/json; charset=utf-8 \r\nAccept: */*\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

EdgeService::Outcome EdgeService::SetMaintenanceMode(bool on, std::string* error) const {
  ZLOG_INFO("[%s] Setting up TCP connection\n", kTag);
  Connection connection(settings_.limit);
  if (const int result = connection.Open(settings_.address, settings_.port); result != 0) {
    ZLOG_ERROR("44102", "[%s] Connection not extablished", kTag);
    *error = "Connection not extablished: " + Reason(result);
    return Outcome::kFailed;
  }
  ZLOG_INFO("[%s] Creating a HTTP Request\n", kTag);
  if (const int result = connection.Send(Request(on)); result != 0) {
    *error = "Failed to send the request: " + Reason(result);
    ZLOG_TO(kLog, kLogError, "%s", error->c_str());
    return Outcome::kFailed;
  }
  ZLOG_INFO("[%s] Data Sent, reading response\n", kTag);
  std::string answer;
  if (const int result = connection.Read(&answer); result != 0) {
    *error = "Failed to read response: " + Reason(result);
    ZLOG_TO(kLog, kLogError, "%s", error->c_str());
    return Outcome::kFailed;
  }
  ZLOG_INFO("[%s] Response read, checking response\n", kTag);
  return ReadAnswer(answer, error);
}

EdgeService::Outcome EdgeService::ReadAnswer(std::string_view answer, std::string* error) {
  const auto fail = [error](std::string text) {
    *error = std::move(text);
    ZLOG_TO(kLog, kLogError, "[%s] Exception while processing HTTP request: %s", kTag, error->c_str());
    return Outcome::kFailed;
  };
  const size_t headers_end = answer.find(kEndOfHeaders);
  const auto status = StatusOf(LineAt(answer, 0));
  if (!status) return fail("Invalid response");
  if (*status != kDone) {
    ZLOG_ERROR("44101", "Maintenance mode action request returned: %u", *status);
    *error = "Maintenance mode action request returned: " + std::to_string(*status);
    return Outcome::kFailed;
  }
  ZLOG_INFO("[%s] Obtained return code 200 OK\n", kTag);
  if (headers_end == std::string_view::npos) return fail("The response's headers have no end");
  const std::string_view headers = answer.substr(0, headers_end);
  for (size_t begin = LineAt(headers, 0).size() + kEndOfLine.size(); begin < headers.size();) {
    const std::string_view line = LineAt(headers, begin);
    begin += line.size() + kEndOfLine.size();
    ZLOG_DEBUG("Response header for HTTP PUT Request: %s\n", std::string(line).c_str());
  }
  const std::string_view body = answer.substr(headers_end + kEndOfHeaders.size());
  if (body.find("enabled") != std::string_view::npos) {
    ZLOG_INFO("[%s] Successfully enabled Maintenance mode\n", kTag);
    return Outcome::kEnabled;
  }
  if (body.find("disabled") != std::string_view::npos) {
    ZLOG_INFO("[%s] Successfully disabled Maintenance mode\n", kTag);
    return Outcome::kDisabled;
  }
  ZLOG_TO(kLog, kLogError, "[%s] Invalid response data", kTag);
  *error = "Invalid response data";
  return Outcome::kFailed;
}

}  // namespace zem::zema
