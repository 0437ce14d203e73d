#pragma once

#include <string>
#include <string_view>

namespace zem {

/// Names the calling thread for the operating system, cut to the 15 bytes that it keeps.  Threads made later
/// by this thread inherit the name until they take their own.  The main thread's name is also the process's.
void SetThreadName(std::string_view name);

std::string ThreadName();

/// The kernel's id of the calling thread.
int ThreadId();

}  // namespace zem
