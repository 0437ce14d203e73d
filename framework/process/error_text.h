#pragma once

#include <string>

namespace zem::Tarvik {

/// Writes "Panic: " and the message to standard error and aborts.
[[noreturn]] void Panic(const char* format, ...) __attribute__((format(printf, 1, 2)));

namespace Util {

/// Returns the system's text for an errno value.
std::string GetErrMsg(int error);

}  // namespace Util
}  // namespace zem::Tarvik
