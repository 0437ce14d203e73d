#pragma once

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Starting of programs.  A child gets descriptors 0 to 2 and no other, default signal actions and an empty
/// signal mask.  All functions may be called from any thread; 0 is success, else an errno.

typedef struct KnluserCompat_Pipe {
  int fd;     ///< this side's end of the pipe, closed in children; the caller closes it
  pid_t pid;  ///< the child; the caller waits for it
} KnluserCompat_Pipe;

/// Runs `command` by "/bin/sh -c" with a pipe: mode "r" reads its standard output, "w" writes its standard
/// input.  The child leads a process group of its own.  EINVAL for another mode.
int KnluserCompat_POpen(const char* command, const char* mode, KnluserCompat_Pipe* handle);

/// The child leads a process group of its own, so that a signal to the group reaches what it started.
#define KNLUSER_NEW_GROUP 1
/// The child is killed when the calling thread ends, so that it does not outlive this process, however that
/// ends.  For threads that outlive their children.
#define KNLUSER_ENDS_WITH_THREAD 2

/// Runs the program argv[0] (searched in PATH unless it holds a slash).  `argv` and `environment` end with
/// null; `descriptors` become 0, 1 and 2 of the child and stay open here; -1 is "/dev/null".
int KnluserCompat_ForkExec(const char* const* argv, const char* const* environment, const int descriptors[3],
                           int flags, pid_t* pid);

#ifdef __cplusplus
}
#endif
