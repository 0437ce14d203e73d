#include "platform/core/thread_name.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zem {
namespace {
constexpr size_t kMaxThreadName = 15;

// The system keeps the name, too, but asking it is a system call.  Empty until the thread has taken a name.
thread_local std::string own_name;
}  // namespace

void SetThreadName(std::string_view name) {
  const std::string cut(name.substr(0, kMaxThreadName));
  pthread_setname_np(pthread_self(), cut.c_str());
  own_name = cut;
}

std::string ThreadName() {
  if (!own_name.empty()) return own_name;
  char name[kMaxThreadName + 1] = {};
  pthread_getname_np(pthread_self(), name, sizeof(name));
  return name;
}

int ThreadId() {
  thread_local const int id = static_cast<int>(syscall(SYS_gettid));
  return id;
}

}  // namespace zem
