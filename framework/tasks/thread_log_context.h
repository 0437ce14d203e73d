#pragma once

#include <string>

namespace zem {

/// The name under which a thread's work appears in the log.
struct ThreadLogContext {
  int thread_id = 0;
  std::string name;
  /// "ZEMA[name:thread id]"; empty on a thread without context.
  std::string prefix;
};

/// Gives the calling thread a context of its own.
void SetThreadLogContext(const std::string& name);

/// Returns the calling thread's context.
const ThreadLogContext& CurrentThreadLogContext();

}  // namespace zem
