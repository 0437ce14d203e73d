#include "app/ctxteng/base/exceptions.h"

#include <sys/syscall.h>
#include <unistd.h>

CtxtBaseException::CtxtBaseException(const char* class_name)
    : message_(class_name + std::string("@tid=") + std::to_string(syscall(SYS_gettid)) + ": ") {}
