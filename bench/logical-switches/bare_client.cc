#include "bench/logical-switches/bare_client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>

namespace zem::bench {
namespace {

constexpr uint32_t kVersion = 1;
constexpr uint32_t kSuccess = 1;

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

BareClient::BareClient(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  if (!socket_ ||
      ::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    throw std::runtime_error("cannot connect to " + path + ": " + std::strerror(errno));
  }
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
    const RequestHeader header{kVersion, static_cast<uint32_t>(call.data.size()), call.operation};
    WriteAll(&header, sizeof(header));
    WriteAll(call.data.data(), call.data.size());
    ReplyHeader answer{};
    ReadAll(&answer, sizeof(answer));
    reply.resize(answer.length);
    ReadAll(reply.data(), reply.size());
    if (answer.status != kSuccess) throw std::runtime_error("the proxy refuses: " + reply);
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
}

}  // namespace zem::bench
