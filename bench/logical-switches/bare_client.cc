#include "bench/logical-switches/bare_client.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "platform/core/thread.h"

namespace zem::bench {
namespace {

constexpr uint32_t kVersion = 1;
constexpr uint32_t kSuccess = 1;
constexpr uint32_t kTextCommand = 10;
constexpr int kTries = 1000;
constexpr auto kPause = std::chrono::milliseconds(10);

struct RequestHeader {
  uint32_t version;
  uint32_t length;
  uint32_t operation;
};
struct ReplyHeader {
  uint32_t status;
  uint32_t length;
};

}  // namespace

BareClient::BareClient(const std::string& script, const std::string& socket) {
  ::unlink(socket.c_str());
  if (KnluserCompat_POpen(("exec python " + script + " 1").c_str(), "r", &script_) != 0) {
    throw std::runtime_error("cannot start " + script);
  }
  Connect(socket);
  LogIn();
}

BareClient::~BareClient() {
  ::kill(-script_.pid, SIGKILL);
  ::close(script_.fd);
  ::waitpid(script_.pid, nullptr, 0);
}

void BareClient::Connect(const std::string& socket) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socket.c_str(), sizeof(address.sun_path) - 1);
  for (int i = 0; i < kTries; ++i) {
    socket_.Reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket_) break;
    if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return;
    SleepFor(kPause);
  }
  throw std::runtime_error("cannot connect to " + socket + ": " + std::strerror(errno));
}

void BareClient::LogIn() {
  Ask("ping");
  if (Ask("login=8.0.1|user|") != "ok") throw std::runtime_error("the proxy refuses the login");
  for (int i = 0; i < kTries; ++i) {
    if (Ask("ping") == "ready") return;
    SleepFor(kPause);
  }
  throw std::runtime_error("the proxy does not get ready");
}

std::string BareClient::Ask(const std::string& command) {
  std::string reply;
  Exchange({kTextCommand, command}, &reply);
  return reply;
}

uint32_t BareClient::Exchange(const Call& call, std::string* reply) {
  const RequestHeader header{kVersion, static_cast<uint32_t>(call.data.size()), call.operation};
  WriteAll(&header, sizeof(header));
  WriteAll(call.data.data(), call.data.size());
  ReplyHeader answer{};
  ReadAll(&answer, sizeof(answer));
  reply->resize(answer.length);
  ReadAll(reply->data(), reply->size());
  return answer.status;
}

void BareClient::WriteAll(const void* data, size_t size) {
  const char* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t written = ::write(socket_.get(), bytes, size);
    if (written <= 0) throw std::runtime_error("the proxy takes no more");
    bytes += written;
    size -= static_cast<size_t>(written);
  }
}

void BareClient::ReadAll(void* data, size_t size) {
  char* bytes = static_cast<char*>(data);
  while (size > 0) {
    const ssize_t got = ::read(socket_.get(), bytes, size);
    if (got <= 0) throw std::runtime_error("the proxy has gone");
    bytes += got;
    size -= static_cast<size_t>(got);
  }
}

double BareClient::Send(const std::vector<Call>& calls) {
  std::string reply;
  const auto begun = std::chrono::steady_clock::now();
  for (const Call& call : calls) {
    if (Exchange(call, &reply) != kSuccess) throw std::runtime_error("the proxy refuses: " + reply);
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
}

}  // namespace zem::bench
