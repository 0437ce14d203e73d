// Kills the daemon at one chosen step with a lasting effect: a change of a file, a call that changes a
// switch, bytes sent to a peer or to a script.  The library is loaded in front of the C library, counts these
// calls as they pass, and does nothing else until the page orders a kill; the daemon itself is the program as
// shipped.
//
// Only the process that runs the daemon's program counts steps.  Its children inherit the library but count
// nothing, and neither do processes that it has forked.  What a switch library does to its files is one step,
// just as a system call is.

#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sim/killpoints/kill_page.h"

#define ZEM_INTERPOSED extern "C" __attribute__((visibility("default")))

namespace {

using zem::sim::KillPage;

constexpr const char* kDaemonProgram = "/bin/zem-tarvik";

struct Attachment {
  KillPage* page = nullptr;
  pid_t owner = 0;
};
Attachment attachment;
thread_local int library_depth = 0;
thread_local uint32_t library_step = 0;

__attribute__((constructor)) void Attach() {
  const char* const path = std::getenv(zem::sim::kKillPageVariable);
  char program[4096];
  const ssize_t size = ::readlink("/proc/self/exe", program, sizeof(program));
  const size_t wanted = std::strlen(kDaemonProgram);
  if (path == nullptr || size < static_cast<ssize_t>(wanted) ||
      std::memcmp(program + size - wanted, kDaemonProgram, wanted) != 0) {
    return;
  }
  const int fd = ::open(path, O_RDWR | O_CLOEXEC);
  if (fd < 0) return;
  void* const mapped = ::mmap(nullptr, sizeof(KillPage), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (mapped == MAP_FAILED) return;
  // Processes that the daemon starts must not be killed.
  ::unsetenv("LD_PRELOAD");
  attachment.owner = ::getpid();
  attachment.page = static_cast<KillPage*>(mapped);
}

bool Counts() {
  const KillPage* const page = attachment.page;
  return page != nullptr && page->armed.load(std::memory_order_acquire) != 0 && library_depth == 0 &&
         ::getpid() == attachment.owner;
}

[[noreturn]] void Die() {
  attachment.page->killed.store(1, std::memory_order_release);
  for (;;) ::kill(attachment.owner, SIGKILL);
}

// The number of the step that begins now; 0 when steps are not counted.
uint32_t Begin(const char* call, const char* subject) {
  if (!Counts()) return 0;
  const int error = errno;
  KillPage* const page = attachment.page;
  const uint32_t number = page->steps.fetch_add(1) + 1;
  std::snprintf(page->names[number % KillPage::kNames], KillPage::kNameSize, "%s %s", call, subject);
  if (number == page->kill_at && page->after == 0 && page->armed.exchange(0) != 0) Die();
  errno = error;
  return number;
}

void End(uint32_t number) {
  if (number == 0) return;
  KillPage* const page = attachment.page;
  if (number == page->kill_at && page->after != 0 && page->armed.exchange(0) != 0) Die();
}

/// One step, from its construction to its destruction.
class Step {
 public:
  Step(const char* call, const char* subject) : number_(Begin(call, subject)) {}
  ~Step() { End(number_); }
  Step(const Step&) = delete;
  Step& operator=(const Step&) = delete;

 private:
  const uint32_t number_;
};

constexpr size_t kSubject = 100;

/// The bytes of a write.
struct Bytes {
  const void* data = nullptr;
  size_t size = 0;
  size_t total = 0;
};

Bytes BytesOf(const void* data, size_t size) { return {data, size, size}; }

Bytes BytesOf(const iovec* parts, size_t count) {
  Bytes bytes;
  for (size_t i = 0; i < count; ++i) bytes.total += parts[i].iov_len;
  if (count != 0) {
    bytes.data = parts[0].iov_base;
    bytes.size = parts[0].iov_len;
  }
  return bytes;
}

// The first characters of a text, such as a command of the script.
void DescribeText(const Bytes& bytes, char* text) {
  constexpr size_t kShown = 24;
  size_t length = 0;
  const char* const data = static_cast<const char*>(bytes.data);
  while (length < kShown && length < bytes.size && data[length] >= ' ' && data[length] <= '~') ++length;
  std::snprintf(text, kShown + 1, "%.*s", static_cast<int>(length), data);
}

// The name of a stream's peer; empty for a socket of another kind.
void DescribeSocket(int fd, const Bytes& bytes, char* text) {
  text[0] = '\0';
  int type = 0;
  socklen_t size = sizeof(type);
  if (::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_STREAM) return;
  sockaddr_storage addresses[2]{};
  socklen_t length = sizeof(addresses[0]);
  ::getpeername(fd, reinterpret_cast<sockaddr*>(&addresses[0]), &length);
  length = sizeof(addresses[1]);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addresses[1]), &length);
  if (addresses[1].ss_family == AF_UNIX) {
    // Only one of the two ends may have a name.
    const char* const peer = reinterpret_cast<const sockaddr_un*>(&addresses[0])->sun_path;
    const char* const own = reinterpret_cast<const sockaddr_un*>(&addresses[1])->sun_path;
    char head[32];
    DescribeText(bytes, head);
    std::snprintf(text, kSubject, "%.50s (%zu bytes) %s", peer[0] != '\0' ? peer : own, bytes.total, head);
  } else {
    const int peer = ntohs(reinterpret_cast<const sockaddr_in*>(&addresses[0])->sin_port);
    const int own = ntohs(reinterpret_cast<const sockaddr_in*>(&addresses[1])->sin_port);
    std::snprintf(text, kSubject, "port %d from %d (%zu bytes)", peer, own, bytes.total);
  }
}

// Names the target of a write: a file or pipe by its path, a stream by its ends; empty for anything else.
void Describe(int fd, const Bytes& bytes, char* text) {
  text[0] = '\0';
  struct stat status {};
  if (fd <= STDERR_FILENO || ::fstat(fd, &status) != 0) return;
  if (S_ISSOCK(status.st_mode)) return DescribeSocket(fd, bytes, text);
  if (!S_ISREG(status.st_mode) && !S_ISFIFO(status.st_mode)) return;
  char link[40];
  std::snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  char path[kSubject];
  const ssize_t size = ::readlink(link, path, sizeof(path) - 1);
  path[size > 0 ? size : 0] = '\0';
  std::snprintf(text, kSubject, "%.80s (%zu bytes)", path, bytes.total);
}

template <class Function>
Function* Next(Function*, const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

#define ZEM_NEXT(name) static auto* const next = Next(&::name, #name)

// Calls that change names in the file system: the step is described by the call's arguments.
#define ZEM_PATH_STEP(name, subject, parameters, arguments) \
  ZEM_INTERPOSED int name parameters {                      \
    ZEM_NEXT(name);                                         \
    const Step step(#name, subject);                        \
    return next arguments;                                  \
  }

ZEM_PATH_STEP(rename, to, (const char* from, const char* to) noexcept, (from, to))
ZEM_PATH_STEP(renameat, to, (int from_fd, const char* from, int to_fd, const char* to) noexcept,
              (from_fd, from, to_fd, to))
ZEM_PATH_STEP(unlink, path, (const char* path) noexcept, (path))
ZEM_PATH_STEP(unlinkat, path, (int fd, const char* path, int flags) noexcept, (fd, path, flags))
ZEM_PATH_STEP(remove, path, (const char* path) noexcept, (path))
ZEM_PATH_STEP(rmdir, path, (const char* path) noexcept, (path))
ZEM_PATH_STEP(mkdir, path, (const char* path, mode_t mode) noexcept, (path, mode))
ZEM_PATH_STEP(link, to, (const char* from, const char* to) noexcept, (from, to))
ZEM_PATH_STEP(symlink, to, (const char* from, const char* to) noexcept, (from, to))

// Opening counts only when it creates or truncates the file.
#define ZEM_OPEN_STEP(name)                                           \
  ZEM_INTERPOSED int name(const char* path, int flags, ...) {         \
    ZEM_NEXT(name);                                                   \
    if ((flags & (O_CREAT | O_TRUNC)) == 0) return next(path, flags); \
    va_list list;                                                     \
    va_start(list, flags);                                            \
    const mode_t mode = va_arg(list, mode_t);                         \
    va_end(list);                                                     \
    const Step step("open", path);                                    \
    return next(path, flags, mode);                                   \
  }
ZEM_OPEN_STEP(open)
ZEM_OPEN_STEP(open64)

// Writes into a file, a pipe or a stream.
#define ZEM_BYTES_STEP(name, describe, bytes, parameters, arguments) \
  ZEM_INTERPOSED ssize_t name parameters {                           \
    ZEM_NEXT(name);                                                  \
    if (!Counts()) return next arguments;                            \
    char subject[kSubject];                                          \
    const int error = errno;                                         \
    describe(fd, bytes, subject);                                    \
    errno = error;                                                   \
    if (subject[0] == '\0') return next arguments;                   \
    const Step step(#name, subject);                                 \
    return next arguments;                                           \
  }

ZEM_BYTES_STEP(write, Describe, BytesOf(data, size), (int fd, const void* data, size_t size),
               (fd, data, size))
ZEM_BYTES_STEP(writev, Describe, BytesOf(parts, static_cast<size_t>(count)),
               (int fd, const iovec* parts, int count), (fd, parts, count))
ZEM_BYTES_STEP(pwrite, Describe, BytesOf(data, size), (int fd, const void* data, size_t size, off_t offset),
               (fd, data, size, offset))
ZEM_BYTES_STEP(pwrite64, Describe, BytesOf(data, size),
               (int fd, const void* data, size_t size, off64_t offset), (fd, data, size, offset))
ZEM_BYTES_STEP(send, DescribeSocket, BytesOf(data, size), (int fd, const void* data, size_t size, int flags),
               (fd, data, size, flags))
ZEM_BYTES_STEP(sendmsg, DescribeSocket, BytesOf(message->msg_iov, message->msg_iovlen),
               (int fd, const msghdr* message, int flags), (fd, message, flags))

ZEM_INTERPOSED int ftruncate(int fd, off_t size) noexcept {
  ZEM_NEXT(ftruncate);
  char subject[kSubject] = "";
  if (Counts()) Describe(fd, {nullptr, 0, static_cast<size_t>(size)}, subject);
  const Step step("ftruncate", subject);
  return next(fd, size);
}

// The switch libraries report each call; `function` is null when the call changes nothing.  Their own file
// accesses are not counted, because they stand for the kernel's work.
ZEM_INTERPOSED void zem_kill_point_begin(const char* function, const char* subject) {
  library_step = function == nullptr ? 0 : Begin(function, subject);
  ++library_depth;
}

ZEM_INTERPOSED void zem_kill_point_end() {
  --library_depth;
  End(library_step);
}
