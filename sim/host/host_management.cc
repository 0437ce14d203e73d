#include "sim/host/host_management.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "platform/core/poll.h"

namespace zem::sim {
namespace {

constexpr size_t kHeaderSize = 284;
constexpr size_t kPayloadSize = 1010;
constexpr size_t kLongestAnswer = 1 << 20;

void Check(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
}

void PutNumber(std::string& bytes, size_t offset, uint32_t value) {
  std::memcpy(bytes.data() + offset, &value, sizeof(value));
}

void PutText(std::string& bytes, size_t offset, const std::string& text, size_t room) {
  std::memcpy(bytes.data() + offset, text.data(), std::min(text.size(), room));
}

uint32_t Number(std::string_view bytes, size_t offset) {
  uint32_t value = 0;
  std::memcpy(&value, bytes.data() + offset, sizeof(value));
  return value;
}

std::string HeaderOf(const HostManagement::Operation& operation, uint32_t payload_size) {
  std::string header(kHeaderSize, '\0');
  PutNumber(header, 0, operation.magic);
  PutNumber(header, 4, operation.version);
  // The reserved bytes get a known content; the agent has to return them unchanged.
  PutText(header, 8, "reserved", 8);
  PutText(header, 16, operation.op_id, 255);
  PutNumber(header, 272, operation.opcode);
  PutNumber(header, 280, payload_size);
  return header;
}

std::string PayloadOf(const HostManagement::Operation& operation) {
  std::string payload(kPayloadSize, '\0');
  PutText(payload, 0, operation.vif, 457);
  PutText(payload, 458, operation.ls, 255);
  PutText(payload, 714, operation.gcf_path, 255);
  return payload;
}

}  // namespace

HostManagement::HostManagement(std::string path) : path_(std::move(path)) { Start(); }

HostManagement::~HostManagement() { Stop(); }

void HostManagement::Start() {
  const std::lock_guard lock(mutex_);
  if (listener_) return;
  UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path_.c_str(), sizeof(address.sun_path) - 1);
  ::unlink(path_.c_str());
  Check(::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), path_.c_str());
  Check(::listen(listener.get(), 1), path_.c_str());
  wake_ = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  listener_ = std::move(listener);
  stopping_ = false;
  state_.listening = true;
  thread_ = NativeThread([this] { Serve(); });
}

void HostManagement::Stop() {
  {
    const std::lock_guard lock(mutex_);
    if (!listener_) return;
    stopping_ = true;
    Wake();
  }
  thread_.Join();
  const std::lock_guard lock(mutex_);
  CloseClientLocked();
  listener_ = UniqueFd();
  ::unlink(path_.c_str());
  state_.listening = false;
}

void HostManagement::Drop() {
  const std::lock_guard lock(mutex_);
  CloseClientLocked();
  if (wake_) Wake();
}

void HostManagement::Wake() {
  const uint64_t one = 1;
  Check(static_cast<int>(::write(wake_.get(), &one, sizeof(one))), "wake");
}

// Requests of this connection will never be answered.
void HostManagement::CloseClientLocked() {
  if (client_) ::shutdown(client_->get(), SHUT_RDWR);
  client_ = nullptr;
  received_.clear();
  asked_.clear();
  state_.connected = false;
  answered_changed_.NotifyAll();
}

// Serves one connection at a time, because the agent makes only one.
void HostManagement::Serve() {
  for (;;) {
    std::shared_ptr<UniqueFd> client;
    pollfd waits[2] = {{-1, POLLIN, 0}, {wake_.get(), POLLIN, 0}};
    {
      const std::lock_guard lock(mutex_);
      if (stopping_) return;
      client = client_;
      if (!client) {
        waits[0].fd = listener_.get();
      } else if (state_.reading) {
        waits[0].fd = client->get();
      }
    }
    if (PollIdle(waits, 2, -1) < 0) {
      if (errno != EINTR) return;
      continue;
    }
    if (uint64_t count = 0; waits[1].revents != 0 && ::read(wake_.get(), &count, sizeof(count)) > 0) continue;
    if (waits[0].revents == 0) continue;
    client ? Receive() : Accept();
  }
}

void HostManagement::Accept() {
  UniqueFd client(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!client) return;
  const timeval limit{10, 0};
  ::setsockopt(client.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  const std::lock_guard lock(mutex_);
  client_ = std::make_shared<UniqueFd>(std::move(client));
  state_.connected = true;
  ++state_.connections;
}

void HostManagement::Receive() {
  const std::lock_guard lock(mutex_);
  if (!client_) return;
  char buffer[65536];
  const ssize_t got = ::recv(client_->get(), buffer, sizeof(buffer), MSG_DONTWAIT);
  if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (got <= 0) {
    if (!received_.empty()) violations_.push_back("the connection ends in the middle of an answer");
    return CloseClientLocked();
  }
  received_.append(buffer, static_cast<size_t>(got));
  while (TakeFrame()) {
  }
}

bool HostManagement::TakeFrame() {
  if (received_.size() < kHeaderSize) return false;
  const size_t size = Number(received_, 280);
  if (size > kLongestAnswer) {
    violations_.push_back("an answer of " + std::to_string(size) + " bytes");
    CloseClientLocked();
    return false;
  }
  if (received_.size() < kHeaderSize + size) return false;
  const std::string_view frame = received_;
  Judge(frame.substr(0, kHeaderSize), frame.substr(kHeaderSize, size));
  received_.erase(0, kHeaderSize + size);
  return true;
}

void HostManagement::Judge(std::string_view header, std::string_view payload) {
  const std::string_view field = header.substr(16, 256);
  const std::string op_id(field.substr(0, field.find('\0')));
  const auto asked = asked_.find(op_id);
  if (asked == asked_.end()) {
    violations_.push_back((answered_.count(op_id) != 0 ? "second answer to " : "answer to unasked ") + op_id);
  } else {
    if (header.substr(0, 276) != std::string_view(asked->second).substr(0, 276)) {
      violations_.push_back("changed header in the answer to " + op_id);
    }
    asked_.erase(asked);
  }
  if (!payload.empty() && payload.back() != '\0')
    violations_.push_back("text without end in the answer to " + op_id);
  answered_.insert(op_id);
  answers_.push_back({op_id, Number(header, 276), std::string(payload.substr(0, payload.find('\0'))),
                      state_.connections, Clock::Process().Now()});
  last_answers_[op_id] = answers_.size() - 1;
  answered_changed_.NotifyAll();
}

bool HostManagement::Ask(const Operation& operation, size_t piece) {
  const std::string payload = operation.payload ? PayloadOf(operation) : std::string();
  const std::string header = HeaderOf(operation, static_cast<uint32_t>(payload.size()));
  // The request has to go out on the connection that it is recorded for, even if that one has been closed by
  // now.
  std::shared_ptr<UniqueFd> client;
  {
    const std::lock_guard lock(mutex_);
    if (!client_) return false;
    client = client_;
    asked_[operation.op_id] = header;
    last_answers_.erase(operation.op_id);
  }
  const std::string frame = header + payload;
  const size_t step = piece == 0 ? frame.size() : piece;
  for (size_t at = 0; at < frame.size(); at += step) {
    if (!SendTo(*client, std::string_view(frame).substr(at, step))) return false;
  }
  return true;
}

bool HostManagement::SendRaw(std::string_view bytes) {
  std::shared_ptr<UniqueFd> client;
  {
    const std::lock_guard lock(mutex_);
    client = client_;
  }
  return client != nullptr && SendTo(*client, bytes);
}

bool HostManagement::SendTo(const UniqueFd& client, std::string_view bytes) {
  const std::lock_guard sender(send_mutex_);
  while (!bytes.empty()) {
    const ssize_t sent = ::send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return false;
    bytes.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

void HostManagement::SetReading(bool on) {
  const std::lock_guard lock(mutex_);
  state_.reading = on;
  if (wake_) Wake();
}

HostManagement::State HostManagement::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

std::vector<HostManagement::Answer> HostManagement::answers() const {
  const std::lock_guard lock(mutex_);
  return answers_;
}

std::optional<HostManagement::Answer> HostManagement::WaitForAnswer(const std::string& op_id,
                                                                    TimePoint until) const {
  std::unique_lock lock(mutex_);
  answered_changed_.WaitUntil(lock, until,
                              [&] { return last_answers_.count(op_id) != 0 || asked_.count(op_id) == 0; });
  const auto found = last_answers_.find(op_id);
  if (found == last_answers_.end()) return std::nullopt;
  return answers_[found->second];
}

bool HostManagement::WaitForAnswers(size_t count, int seconds) const {
  std::unique_lock lock(mutex_);
  return answered_changed_.WaitFor(lock, std::chrono::seconds(seconds),
                                   [&] { return answers_.size() >= count; });
}

std::vector<std::string> HostManagement::outstanding() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> op_ids;
  for (const auto& [op_id, header] : asked_) op_ids.push_back(op_id);
  return op_ids;
}

std::vector<std::string> HostManagement::violations() const {
  const std::lock_guard lock(mutex_);
  return violations_;
}

}  // namespace zem::sim
