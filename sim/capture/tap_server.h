#pragma once

#include "platform/core/thread.h"
#include "platform/core/unique_fd.h"

namespace zem::sim::capture {

/// The switch's side of captures: hands the host's capturing tool a tap at a capture point.  The tool gets an
/// open socket, as a switch gives packets to whom it has let in, and so needs no rights of its own; the tap
/// goes away with the tool.
///
/// Threads: constructed and destroyed by one thread; a thread of its own serves one tool at a time.
class TapServer {
 public:
  /// Throws std::runtime_error when the socket cannot be made.
  TapServer();
  ~TapServer();
  TapServer(const TapServer&) = delete;
  TapServer& operator=(const TapServer&) = delete;

 private:
  void Run();

  const UniqueFd socket_;
  const UniqueFd wake_;
  NativeThread thread_;
};

}  // namespace zem::sim::capture
