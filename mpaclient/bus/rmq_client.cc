#include "mpaclient/bus/rmq_client.h"

#include "framework/log/log.h"
#include "mpaclient/bus/bus_record.h"
#include "platform/core/loop_monitor.h"

namespace zem {
namespace {
constexpr LogSource kLog{"tarvik", "framework"};
}  // namespace

int RmqClient::NETEventLoop(int options) { return rmqClient_NETEventLoop(options); }

int RmqClient::InitNETClient(const char* app_id, const char* app_type, int client_type,
                             rmqClientCallback callback) {
  return rmqClient_InitNETClient(app_id, app_type, client_type, callback);
}

int RmqClient::CloseClient(int cookie) { return rmqClient_CloseClient(cookie); }

int RmqClient::SendToVSM(rmqClientMessage* message) { return rmqClient_SendToVSM(message); }

int RmqClient::InitNETClient_Custom(const char* app_type, const char* app_id, int client_type, void* context,
                                    rmqClientCallback callback, const rmqClientSettings* settings) {
  return rmqClient_InitNETClient_Custom(app_type, app_id, client_type, context, callback, settings);
}

int RmqClient::StopNETEventLoop() { return rmqClient_StopNETEventLoop(); }

void RmqClientEventLoopThread::Run() {
  // Otherwise its life would be one endless step of the work group.
  const LoopThread loop("bus", LoopKind::kPrompt);
  if (const int result = rmqClient_NETEventLoop(0); result != 0) {
    ZLOG_WARN("bus event loop ended: %d (%s)", result, BusErrorName(result));
  }
}

}  // namespace zem
