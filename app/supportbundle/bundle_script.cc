#include "app/supportbundle/bundle_script.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "framework/log/log.h"
#include "framework/process/child_process.h"
#include "framework/process/error_text.h"

namespace zem::Tarvik {
namespace {

constexpr LogSource kLog{"tarvik", "supportbundle"};

constexpr size_t kOutputLimit = size_t{1} << 20U;
constexpr int kTimedOut = 124;

}  // namespace

int ExecuteCmd(const std::vector<std::string>& argv, std::string input, std::string* output,
               std::string* error, const std::atomic<bool>* stop, Duration limit, pid_t* pid) {
  ChildProcess::Options options;
  options.argv = argv;
  options.environment = std::vector<std::string>{"PYTHONIOENCODING=utf-8"};
  options.input = std::move(input);
  options.secret_input = true;
  options.output_limit = kOutputLimit;
  options.own_group = true;
  options.stop = stop;
  options.time_limit = limit;
  ChildProcess child(std::move(options));
  ChildResult result = child.Run();
  *pid = result.pid;
  *output = std::move(result.output);
  *error = std::move(result.errors);
  switch (result.end) {
    case ChildEnd::kExited:
      break;
    case ChildEnd::kNoPipe:
      ZLOG_ERROR("OPS60010", "%s: Pipe failed to open. Err=%s\n", __func__,
                 Util::GetErrMsg(result.value).c_str());
      return -1;
    case ChildEnd::kNotStarted:
      ZLOG_ERROR("OPS60010", "%s: Fork failed. errno=%d\n", __func__, result.value);
      return -1;
    case ChildEnd::kTimedOut:
      ZLOG_ERROR("OPS60010", "%s: process terminated abnormally, err=%s, status=%d\n", __func__,
                 "it took too long", kTimedOut);
      return kTimedOut;
    default: {
      const int number = result.end == ChildEnd::kSignalled ? result.value : 0;
      ZLOG_ERROR("OPS60010", "%s: process terminated abnormally, err=%s, status=%d\n", __func__,
                 number != 0 ? ::strsignal(number) : "stopped", number);
      return -1;
    }
  }
  // A script that ends without reading its input has said by its status what is wrong.
  if (result.input_error != 0 && result.input_error != EPIPE) {
    ZLOG_ERROR("OPS60010", "%s: Input failed. Input=%s, Err=%s\n", __func__, "******",
               Util::GetErrMsg(result.input_error).c_str());
    return -1;
  }
  return result.value;
}

}  // namespace zem::Tarvik
