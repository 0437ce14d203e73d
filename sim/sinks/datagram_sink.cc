#include "sim/sinks/datagram_sink.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <vector>

namespace zem::sim {

DatagramSink::DatagramSink(Options options, std::function<void(std::string_view)> take)
    : options_(std::move(options)), take_(std::move(take)) {
  const std::string& path = options_.path;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path))
    throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
  std::memcpy(address.sun_path, path.data(), path.size());
  socket_.Reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ::unlink(path.c_str());
  if (::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
    throw std::system_error(errno, std::generic_category(), "bind " + path);
  }
  if (const int bytes = options_.receive_buffer; bytes > 0) {
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes));
  }
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) < 0) throw std::system_error(errno, std::generic_category(), "pipe");
  stop_read_.Reset(ends[0]);
  stop_write_.Reset(ends[1]);
  NativeThread::Options thread;
  thread.name = options_.thread_name;
  thread.counts_as_work = false;
  thread_ = NativeThread(std::move(thread), [this] { Receive(); });
}

DatagramSink::~DatagramSink() {
  stop_write_.Reset();
  thread_.Join();
  ::unlink(options_.path.c_str());
}

bool DatagramSink::Drained() const {
  std::lock_guard lock(hand_over_);
  int unread = 0;
  return ::ioctl(socket_.get(), FIONREAD, &unread) < 0 || unread == 0;
}

void DatagramSink::Receive() {
  std::vector<char> buffer(options_.max_datagram);
  for (;;) {
    pollfd fds[] = {{socket_.get(), POLLIN, 0}, {stop_read_.get(), POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0 && errno != EINTR) return;
    if (fds[1].revents != 0) return;
    std::lock_guard lock(hand_over_);
    const ssize_t size = ::recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size > 0) take_({buffer.data(), static_cast<size_t>(size)});
  }
}

}  // namespace zem::sim
