#include "framework/process/error_text.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zem::Tarvik {

void Panic(const char* format, ...) {
  std::fputs("Panic: ", stderr);
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
  std::abort();
}

namespace Util {

std::string GetErrMsg(int error) {
  char buffer[256];
  return ::strerror_r(error, buffer, sizeof(buffer));
}

}  // namespace Util
}  // namespace zem::Tarvik
