#include "sim/guest/mux_peer.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <vector>

#include "platform/core/unix_socket.h"
#include "sim/guest/world/guest_world.h"

// A thread per connection: the library opens one for events and as many for questions as its workers need.

namespace zem::sim::guest {
namespace {

constexpr timeval kSendPatience{5, 0};

}  // namespace

MuxPeer::MuxPeer(GuestWorld& world, std::string path, std::chrono::milliseconds tick)
    : world_(world), path_(std::move(path)), tick_(tick) {
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
  Listen();
  beat_ = NativeThread({.name = "guest-timer"}, [this] { Beat(); });
}

MuxPeer::~MuxPeer() {
  stop_.Stop();
  Die();
  beat_.Join();
}

void MuxPeer::Listen() {
  UniqueFd fd = OpenUnixStream(0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() > kMaxUnixPath) throw std::system_error(ENAMETOOLONG, std::generic_category(), path_);
  std::memcpy(address.sun_path, path_.data(), path_.size());
  ::unlink(path_.c_str());
  if (!fd || ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0 ||
      ::listen(fd.get(), 64) < 0) {
    throw std::system_error(errno, std::generic_category(), "listen at " + path_);
  }
  auto listener = std::make_shared<SharedSocket>(std::move(fd));
  std::lock_guard lock(mutex_);
  listener_ = listener;
  acceptor_ = NativeThread({.name = "mux-accept"}, [this, listener] { Accept(listener); });
}

void MuxPeer::Accept(const Socket& listener) {
  for (;;) {
    UniqueFd fd(::accept4(listener->fd(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!fd && errno == EINTR) continue;
    if (!fd) return;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kSendPatience, sizeof(kSendPatience));
    auto socket = std::make_shared<SharedSocket>(std::move(fd));
    std::lock_guard lock(mutex_);
    if (listener_ != listener) return;
    connections_.remove_if([](const Connection& connection) { return connection.ended; });
    connections_.push_back({socket, {}, false});
    Connection& connection = connections_.back();
    connection.thread = NativeThread({.name = "mux-serve"}, [this, socket, &connection] {
      Serve(socket);
      std::lock_guard guard(mutex_);
      connection.ended = true;
    });
  }
}

void MuxPeer::Serve(const Socket& socket) {
  uint64_t attachment = 0;
  while (const auto bytes = ReadMessage(socket->fd())) {
    const auto question = DecodeQuestion(*bytes);
    if (!question) break;
    if (question->operation == Operation::kEvents) {
      // A library that does not read its events is cut off, so that the world is held up once at most.
      attachment = world_.Attach(question->number, static_cast<uint32_t>(question->number2),
                                 [socket](const Event& event) {
                                   if (!WriteMessage(socket->fd(), Encode(event))) socket->Shutdown();
                                 });
      continue;
    }
    {
      std::unique_lock lock(mutex_);
      thawed_.Wait(lock, [this] { return !frozen_ || listener_ == nullptr; });
      if (listener_ == nullptr) break;
    }
    const Answer answer = world_.Ask(*question);
    const bool one_way =
        question->operation == Operation::kDone || question->operation == Operation::kViolation;
    if (!one_way && !WriteMessage(socket->fd(), Encode(answer))) break;
  }
  if (attachment != 0) world_.Detach(attachment);
  socket->Shutdown();
}

void MuxPeer::Die() {
  NativeThread acceptor;
  std::list<Connection> connections;
  {
    std::lock_guard lock(mutex_);
    if (listener_ == nullptr) return;
    listener_->Shutdown();
    listener_ = nullptr;
    thawed_.NotifyAll();
    acceptor = std::move(acceptor_);
    for (const Connection& connection : connections_) connection.socket->Shutdown();
  }
  acceptor.Join();
  {
    std::lock_guard lock(mutex_);
    connections.swap(connections_);
  }
  for (Connection& connection : connections) connection.thread.Join();
  ::unlink(path_.c_str());
}

bool MuxPeer::Return() {
  if (serving()) return false;
  Listen();
  return true;
}

void MuxPeer::SetFrozen(bool frozen) {
  std::lock_guard lock(mutex_);
  frozen_ = frozen;
  thawed_.NotifyAll();
}

void MuxPeer::SetTick(std::chrono::milliseconds tick) {
  std::lock_guard lock(mutex_);
  tick_ = tick;
}

bool MuxPeer::serving() const {
  std::lock_guard lock(mutex_);
  return listener_ != nullptr;
}

void MuxPeer::Beat() {
  for (;;) {
    std::chrono::milliseconds tick;
    {
      std::lock_guard lock(mutex_);
      tick = tick_;
    }
    if (stop_.WaitFor(tick)) return;
    if (serving()) world_.Tick({});
  }
}

}  // namespace zem::sim::guest
