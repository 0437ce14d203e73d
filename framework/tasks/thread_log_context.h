#pragma once

#include <string>

namespace zem {

/// What the lines of a thread's work are marked with.
struct ThreadLogContext {
  int thread_id = 0;
  std::string name;
  /// "ZEMA[name:thread id]"; empty on a thread without context.
  std::string prefix;
};

/// Gives the calling thread a context of its own.
void SetThreadLogContext(const std::string& name);

/// The calling thread's.
const ThreadLogContext& CurrentThreadLogContext();

}  // namespace zem
