#include "platform/knluser/knluser.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/core/unique_fd.h"

namespace {

using zem::UniqueFd;

class FileActions {
 public:
  FileActions() { posix_spawn_file_actions_init(&actions_); }
  ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;

  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

class Attributes {
 public:
  explicit Attributes(int flags) {
    posix_spawnattr_init(&attributes_);
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&attributes_, &all);
    posix_spawnattr_setsigmask(&attributes_, &none);
    short spawn_flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
    if ((flags & KNLUSER_NEW_GROUP) != 0) spawn_flags |= POSIX_SPAWN_SETPGROUP;
    posix_spawnattr_setflags(&attributes_, spawn_flags);
  }
  ~Attributes() { posix_spawnattr_destroy(&attributes_); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;

  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_;
};

// Standard descriptors as sources would be overwritten by the duplication of another one.
int MoveAboveStandard(int fd, UniqueFd* holder) {
  if (fd < 0 || fd > STDERR_FILENO) return fd;
  holder->Reset(::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  return holder->get();
}

struct NewProgram {
  const char* const* argv;
  const char* const* environment;
  int descriptors[3];  // above 2, or -1
  int flags;
  pid_t parent;
};

// Between fork and exec, where only system calls are safe.  Returns the errno of what failed.
int BecomeProgram(const NewProgram& program) {
  if ((program.flags & KNLUSER_NEW_GROUP) != 0) ::setpgid(0, 0);
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return errno;
  // The parent may have ended before the line above.
  if (::getppid() != program.parent) return ESRCH;
  for (int target = 0; target < 3; ++target) {
    int source = program.descriptors[target];
    if (source < 0) source = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (source < 0 || ::dup2(source, target) < 0) return errno;
  }
  if (::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) != 0) return errno;
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) ::sigaction(signal, &standard, nullptr);
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::execvpe(program.argv[0], const_cast<char* const*>(program.argv),
            const_cast<char* const*>(program.environment));
  return errno;
}

// posix_spawn cannot tie a child to a thread.
int ForkTiedToThread(const NewProgram& program, pid_t* pid) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return errno;
  const UniqueFd failure(ends[0]);
  UniqueFd report(ends[1]);
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  // A handler of this process must not run in the child.
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t child = ::fork();
  if (child == 0) {
    const int error = BecomeProgram(program);
    [[maybe_unused]] const ssize_t told = ::write(report.get(), &error, sizeof(error));
    ::_exit(127);
  }
  const int fork_error = errno;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (child < 0) return fork_error;
  report.Reset();
  int error = 0;
  ssize_t got = 0;
  do {
    got = ::read(failure.get(), &error, sizeof(error));
  } while (got < 0 && errno == EINTR);
  if (got == 0) {
    *pid = child;
    return 0;
  }
  while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  return got == sizeof(error) ? error : EIO;
}

}  // namespace

int KnluserCompat_ForkExec(const char* const* argv, const char* const* environment, const int descriptors[3],
                           int flags, pid_t* pid) {
  if (argv == nullptr || argv[0] == nullptr || pid == nullptr) return EINVAL;
  UniqueFd moved[3];
  if ((flags & KNLUSER_ENDS_WITH_THREAD) != 0) {
    NewProgram program{argv, environment, {-1, -1, -1}, flags, ::getpid()};
    for (int target = 0; target < 3; ++target) {
      program.descriptors[target] = MoveAboveStandard(descriptors[target], &moved[target]);
      if (descriptors[target] >= 0 && program.descriptors[target] < 0) return errno;
    }
    return ForkTiedToThread(program, pid);
  }
  FileActions actions;
  for (int target = 0; target < 3; ++target) {
    int result = 0;
    if (descriptors[target] < 0) {
      result = posix_spawn_file_actions_addopen(actions.get(), target, "/dev/null", O_RDWR, 0);
    } else {
      const int source = MoveAboveStandard(descriptors[target], &moved[target]);
      if (source < 0) return errno;
      result = posix_spawn_file_actions_adddup2(actions.get(), source, target);
    }
    if (result != 0) return result;
  }
  if (const int result = posix_spawn_file_actions_addclosefrom_np(actions.get(), STDERR_FILENO + 1);
      result != 0) {
    return result;
  }
  const Attributes attributes(flags);
  return posix_spawnp(pid, argv[0], actions.get(), attributes.get(), const_cast<char* const*>(argv),
                      const_cast<char* const*>(environment));
}

int KnluserCompat_POpen(const char* command, const char* mode, KnluserCompat_Pipe* handle) {
  if (command == nullptr || mode == nullptr || handle == nullptr) return EINVAL;
  const bool reads = std::strcmp(mode, "r") == 0;
  if (!reads && std::strcmp(mode, "w") != 0) return EINVAL;
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return errno;
  UniqueFd read_end(ends[0]);
  UniqueFd write_end(ends[1]);
  const char* const argv[] = {"/bin/sh", "-c", command, nullptr};
  const int descriptors[3] = {reads ? STDIN_FILENO : read_end.get(), reads ? write_end.get() : STDOUT_FILENO,
                              STDERR_FILENO};
  pid_t pid = -1;
  if (const int result = KnluserCompat_ForkExec(argv, environ, descriptors, KNLUSER_NEW_GROUP, &pid);
      result != 0)
    return result;
  handle->fd = reads ? read_end.Release() : write_end.Release();
  handle->pid = pid;
  return 0;
}
