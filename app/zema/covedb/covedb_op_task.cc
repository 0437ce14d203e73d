#include "app/zema/covedb/covedb_op_task.h"

#include <utility>

#include "app/zema/covedb/covedb_handler.h"
#include "framework/log/log.h"
#include "platform/core/thread_name.h"

namespace zem::zema {
namespace {
constexpr LogSource kLog{"tarvik", "zema"};
}

CoveDbOpTask::CoveDbOpTask(std::shared_ptr<CoveDbHandler> handler, RawBusMessage message)
    : handler_(std::move(handler)), message_(std::move(message)) {}

CoveDbOpTask::~CoveDbOpTask() = default;

void CoveDbOpTask::Run() {
  SetThreadName("zema:coveDbTask");
  if (handler_->writer().SaveMessage(&message_) < 0) {
    ZLOG_ERROR("44092", "Error persisting configuration Messages to DB");
  } else {
    ZLOG_INFO("Successfully written message [%s] to coveDB", message_.type.c_str());
  }
}

}  // namespace zem::zema
