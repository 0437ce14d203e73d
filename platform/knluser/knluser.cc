#include "platform/knluser/knluser.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
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

}  // namespace

int KnluserCompat_ForkExec(const char* const* argv, const char* const* environment, const int descriptors[3],
                           int flags, pid_t* pid) {
  if (argv == nullptr || argv[0] == nullptr || pid == nullptr) return EINVAL;
  FileActions actions;
  UniqueFd moved[3];
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
