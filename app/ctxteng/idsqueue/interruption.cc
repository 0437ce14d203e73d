#include "app/ctxteng/idsqueue/interruption.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>

#include "platform/core/poll.h"

namespace IdsEvtEng {

Interruption::Interruption() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!fd_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void Interruption::Stop() {
  signal_.Stop();
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t full_is_readable = ::write(fd_.get(), &one, sizeof(one));
}

Interruption::Wait Interruption::WaitFor(int fd, short events, zem::Duration duration) const {
  std::array<pollfd, 2> waits{pollfd{fd, events, 0}, pollfd{fd_.get(), POLLIN, 0}};
  const int ready = zem::PollUntil(waits.data(), waits.size(), zem::Clock::Process().Now() + duration);
  if (stopped()) return Wait::kStopped;
  if (ready < 0) return Wait::kFailed;
  return ready > 0 && waits[0].revents != 0 ? Wait::kReady : Wait::kTimeOut;
}

}  // namespace IdsEvtEng
