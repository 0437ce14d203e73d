#include "sim/dataplane/dataplane_agent.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "platform/core/poll.h"
#include "platform/core/unix_socket.h"

// One thread waits for the listener and the client together.  Commands write to the client from their own
// threads: they share ownership of its socket, so that the descriptor is not reused while they write.

namespace zem::sim {
namespace {

constexpr timeval kSendPatience{5, 0};

[[noreturn]] void Fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

DataplaneHeader ReadHeader(std::string_view bytes) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(bytes[i]); };
  DataplaneHeader header;
  header.bits = byte(0);
  header.type = byte(1);
  header.length = 0;
  for (size_t i = 2; i < DataplaneHeader::kSize; ++i) header.length = header.length << 8 | byte(i);
  return header;
}

}  // namespace

std::string DataplaneHeader::Bytes() const {
  std::string bytes{static_cast<char>(bits), static_cast<char>(type)};
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(length >> shift & 0xff);
  return bytes;
}

DataplaneAgent::DataplaneAgent(std::string path) : wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wake_) Fail("eventfd");
  Listen(path);
  NativeThread::Options options;
  options.name = "dataplane";
  thread_ = NativeThread(std::move(options), [this] { Serve(); });
}

DataplaneAgent::~DataplaneAgent() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  Die();
  thread_.Join();
  ::unlink(path_.c_str());
}

void DataplaneAgent::Listen(const std::string& path) {
  if (path.empty() || path.size() > kMaxUnixPath)
    throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
  UniqueFd fd = OpenUnixStream(SOCK_NONBLOCK);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  ::unlink(path.c_str());
  if (!fd || ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0 ||
      ::listen(fd.get(), 8) < 0) {
    Fail("listen at " + path);
  }
  std::lock_guard lock(mutex_);
  path_ = path;
  listener_ = std::make_shared<SharedSocket>(std::move(fd));
}

void DataplaneAgent::Die() {
  CloseClient();
  {
    std::lock_guard lock(mutex_);
    // Connections that are queued but not accepted yet are refused together with the listener.
    if (listener_ != nullptr) listener_->Shutdown();
    listener_ = nullptr;
  }
  Wake();
}

bool DataplaneAgent::Return(const std::string& path) {
  std::string where;
  {
    std::lock_guard lock(mutex_);
    if (listener_ != nullptr) return false;
    where = path.empty() ? path_ : path;
    reading_ = true;
  }
  Listen(where);
  Wake();
  return true;
}

std::string DataplaneAgent::Send(std::string_view bytes, bool byte_by_byte) {
  Client client;
  {
    std::lock_guard lock(mutex_);
    client = client_;
  }
  if (client == nullptr) return "nobody is connected";
  size_t sent = 0;
  while (sent < bytes.size()) {
    const size_t size = byte_by_byte ? 1 : bytes.size() - sent;
    const ssize_t n = ::send(client->fd(), bytes.data() + sent, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return "after " + std::to_string(sent) + " bytes: " + std::strerror(errno);
    sent += static_cast<size_t>(n);
  }
  return {};
}

bool DataplaneAgent::CloseClient() {
  Client client;
  {
    std::lock_guard lock(mutex_);
    client = client_;
  }
  if (client == nullptr) return false;
  EndClient(client, "closed by the agent");
  Wake();
  return true;
}

void DataplaneAgent::SetReading(bool on) {
  {
    std::lock_guard lock(mutex_);
    reading_ = on;
  }
  Wake();
}

DataplaneAgent::State DataplaneAgent::state() const {
  std::lock_guard lock(mutex_);
  return {path_, listener_ != nullptr, client_ != nullptr, reading_, connections_, last_number_, last_end_};
}

std::vector<DataplaneAgent::Frame> DataplaneAgent::Received(uint64_t after) const {
  std::lock_guard lock(mutex_);
  std::vector<Frame> frames;
  for (const Frame& frame : frames_) {
    if (frame.number > after) frames.push_back(frame);
  }
  return frames;
}

void DataplaneAgent::Wake() {
  const uint64_t one = 1;
  // An eventfd whose counter is at its limit is readable too, so a failed write still wakes the thread.
  if (::write(wake_.get(), &one, sizeof(one)) < 0 && errno != EAGAIN) Fail("wake");
}

void DataplaneAgent::Serve() {
  for (;;) {
    Client client;
    std::shared_ptr<SharedSocket> listener;
    bool reading;
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
      client = client_;
      listener = listener_;
      reading = reading_;
    }
    // The next client is accepted only after this one has disconnected.
    std::array<pollfd, 2> fds{{{wake_.get(), POLLIN, 0}, {-1, POLLIN, 0}}};
    if (client != nullptr) {
      fds[1].fd = client->fd();
      if (!reading) fds[1].events = 0;
    } else if (listener != nullptr) {
      fds[1].fd = listener->fd();
    }
    if (PollIdle(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      Fail("poll");
    }
    uint64_t woken;
    if (fds[0].revents != 0 && ::read(wake_.get(), &woken, sizeof(woken)) < 0 && errno != EAGAIN)
      Fail("wake");
    if (fds[1].revents == 0) continue;
    if (client != nullptr) {
      Read(client);
    } else {
      Accept();
    }
  }
}

void DataplaneAgent::Accept() {
  std::lock_guard lock(mutex_);
  if (listener_ == nullptr) return;
  UniqueFd fd(::accept4(listener_->fd(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!fd) return;
  ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kSendPatience, sizeof(kSendPatience));
  unread_.clear();
  client_ = std::make_shared<SharedSocket>(std::move(fd));
  ++connections_;
}

void DataplaneAgent::Read(const Client& client) {
  std::array<char, 64 * 1024> bytes;
  const ssize_t got = ::recv(client->fd(), bytes.data(), bytes.size(), MSG_DONTWAIT);
  if (got < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (got <= 0) return EndClient(client, got == 0 ? "closed by the client" : std::strerror(errno));
  bool sound;
  {
    const std::lock_guard calling(observer_mutex_);
    std::vector<Frame> taken;
    {
      std::lock_guard lock(mutex_);
      if (client_ != client) return;
      unread_.append(bytes.data(), static_cast<size_t>(got));
      const uint64_t before = last_number_;
      sound = TakeFrames();
      for (size_t i = frames_.size() - std::min(frames_.size(), last_number_ - before); i < frames_.size();
           ++i)
        taken.push_back(frames_[i]);
    }
    if (observer_.frame) {
      for (const Frame& frame : taken) observer_.frame(frame);
    }
  }
  if (!sound) EndClient(client, "the client sent a bad frame");
}

bool DataplaneAgent::TakeFrames() {
  size_t taken = 0;
  while (unread_.size() - taken >= DataplaneHeader::kSize) {
    const std::string_view rest = std::string_view(unread_).substr(taken);
    const DataplaneHeader header = ReadHeader(rest);
    if (header.length < DataplaneHeader::kSize || header.length > kMaxFrame) return false;
    if (rest.size() < header.length) break;
    const std::string_view body = rest.substr(DataplaneHeader::kSize, header.length - DataplaneHeader::kSize);
    if (frames_.size() == kMaxKept) frames_.erase(frames_.begin());
    frames_.push_back({++last_number_, header, std::string(body)});
    taken += header.length;
  }
  unread_.erase(0, taken);
  return true;
}

void DataplaneAgent::EndClient(const Client& client, const std::string& why) {
  const std::lock_guard calling(observer_mutex_);
  {
    std::lock_guard lock(mutex_);
    if (client_ != client) return;
    client->Shutdown();
    client_ = nullptr;
    last_end_ = why;
  }
  if (observer_.end) observer_.end();
}

void DataplaneAgent::SetObserver(Observer observer) {
  const std::lock_guard calling(observer_mutex_);
  observer_ = std::move(observer);
}

}  // namespace zem::sim
