#include "app/ctxteng/base/locks.h"

#include <system_error>

#include "framework/log/log.h"

namespace Locks {
namespace {

constexpr zem::LogSource kLog{"tarvik", "ctxteng"};

std::string TextOf(int error) { return std::generic_category().message(error); }

}  // namespace

LockException::LockException(int error) : error_(error) { Append("LockException: " + TextOf(error)); }

Mutex::Mutex() {
  // The error-checking kind reports a thread that locks twice or unlocks what it does not hold.
  pthread_mutexattr_t kind;
  pthread_mutexattr_init(&kind);
  pthread_mutexattr_settype(&kind, PTHREAD_MUTEX_ERRORCHECK);
  const int error = pthread_mutex_init(&mutex_, &kind);
  pthread_mutexattr_destroy(&kind);
  if (error != 0) throw LockException(error);
}

Mutex::~Mutex() {
  const int error = pthread_mutex_destroy(&mutex_);
  if (error != 0) ZLOG_CTX_ERROR(31, "pthread_mutex_destroy failed: %s", TextOf(error).c_str());
}

void Mutex::Lock() {
  const int error = pthread_mutex_lock(&mutex_);
  if (error != 0) throw LockException(error);
}

int Mutex::Unlock() noexcept { return pthread_mutex_unlock(&mutex_); }

ScopedLock::~ScopedLock() {
  const int error = mutex_.Unlock();
  if (error != 0) ZLOG_CTX_ERROR(36, "Ctxt: Failed to mutex unlock, %s", TextOf(error).c_str());
}

}  // namespace Locks
