#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

#include "platform/core/unique_fd.h"

namespace zem {

/// The longest path that a Unix socket's address holds with its closing zero.
inline constexpr size_t kMaxUnixPath = sizeof(sockaddr_un::sun_path) - 1;

/// Connects `fd` to `path`, of which the first kMaxUnixPath bytes are used.  0 or an errno.
inline int ConnectUnix(int fd, std::string_view path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), std::min(path.size(), kMaxUnixPath));
  return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ? 0 : errno;
}

/// A stream socket, closed in children; -1 and errno on failure.  `flags` may be SOCK_NONBLOCK.
inline UniqueFd OpenUnixStream(int flags = 0) {
  return UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
}

/// A socket that one thread may shut down while others use it.  Whoever uses it holds a share, so its number
/// cannot be given to another file meanwhile; the last share closes it.
class SharedSocket {
 public:
  explicit SharedSocket(UniqueFd fd) : fd_(std::move(fd)) {}
  SharedSocket(const SharedSocket&) = delete;
  SharedSocket& operator=(const SharedSocket&) = delete;

  int fd() const { return fd_.get(); }

  /// Calls under way and later ones end with end-of-stream or an error.
  void Shutdown() { ::shutdown(fd_.get(), SHUT_RDWR); }

 protected:
  /// For a derived class that closes by itself.
  int Release() { return fd_.Release(); }

 private:
  UniqueFd fd_;
};

}  // namespace zem
