#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>

#include "platform/core/poll.h"
#include "platform/core/unix_socket.h"

namespace zem::test {

/// The other end of a Unix stream socket, driven by the test's thread.  It waits in real time, even if a
/// virtual clock advances meanwhile.
class UnixPeer {
 public:
  explicit UnixPeer(const std::string& path) : listener_(OpenUnixStream()) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, kMaxUnixPath);
    EXPECT_EQ(::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(::listen(listener_.get(), 8), 0);
  }

  void Accept() {
    ASSERT_TRUE(Wait(listener_.get(), POLLIN));
    connection_.Reset(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_TRUE(connection_);
  }
  void Close() { connection_.Reset(); }

  void Send(std::string_view bytes) {
    ASSERT_EQ(::send(connection_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }

  /// Reads exactly `size` bytes, or fewer at the end of the stream.
  std::string Receive(size_t size) {
    std::string bytes(size, '\0');
    size_t got = 0;
    while (got < size && Wait(connection_.get(), POLLIN)) {
      const ssize_t part = ::recv(connection_.get(), bytes.data() + got, size - got, 0);
      if (part <= 0) break;
      got += static_cast<size_t>(part);
    }
    bytes.resize(got);
    return bytes;
  }

 private:
  static bool Wait(int fd, short events) {
    pollfd wait{fd, events, 0};
    return PollIdle(&wait, 1, 20000) > 0;
  }

  UniqueFd listener_;
  UniqueFd connection_;
};

}  // namespace zem::test
