#include "framework/tasks/thread_log_context.h"

#include "platform/core/thread_name.h"

namespace zem {
namespace {
thread_local ThreadLogContext context;
}  // namespace

void SetThreadLogContext(const std::string& name) {
  context.thread_id = ThreadId();
  context.name = name;
  context.prefix = "ZEMA[" + name + ":" + std::to_string(context.thread_id) + "]";
}

const ThreadLogContext& CurrentThreadLogContext() { return context; }

}  // namespace zem
