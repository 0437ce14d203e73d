#include "platform/busclient/rmqclient.h"

#include <mutex>

#include "platform/core/condition.h"

// Nodes of this product carry their messages over RPC; this library therefore has no broker to speak to and
// says so to whoever wants a connection.  Its event loop is real: it holds its thread until it is stopped.

namespace {

constexpr int kInvalidCookie = -2002;
constexpr int kInvalidArguments = -2003;
constexpr int kNullPointer = -2004;
constexpr int kConnectFail = -2008;
constexpr int kStarted = -2017;
constexpr int kNoEventLoop = -2024;
constexpr int kNoCallback = -2026;

struct Loop {
  std::mutex mutex;  // guards all below
  zem::Condition changed;
  bool running = false;
  bool stop = false;
};

Loop& TheLoop() {
  static Loop* const loop = new Loop;  // never destroyed: its thread may run until the process ends
  return *loop;
}

}  // namespace

int rmqClient_NETEventLoop(int) {
  Loop& loop = TheLoop();
  std::unique_lock lock(loop.mutex);
  if (loop.running) return kStarted;
  loop.running = true;
  loop.changed.Wait(lock, [&] { return loop.stop; });
  loop.running = false;
  loop.stop = false;
  return 0;
}

int rmqClient_StopNETEventLoop(void) {
  Loop& loop = TheLoop();
  std::lock_guard lock(loop.mutex);
  if (!loop.running) return kNoEventLoop;
  loop.stop = true;
  loop.changed.NotifyAll();
  return 0;
}

int rmqClient_InitNETClient_Custom(const char* app_type, const char* app_id, int, void*,
                                   rmqClientCallback callback, const rmqClientSettings*) {
  if (app_type == nullptr || app_id == nullptr) return kNullPointer;
  if (*app_type == '\0' || *app_id == '\0') return kInvalidArguments;
  if (callback == nullptr) return kNoCallback;
  return kConnectFail;
}

int rmqClient_InitNETClient(const char* app_id, const char* app_type, int client_type,
                            rmqClientCallback callback) {
  return rmqClient_InitNETClient_Custom(app_type, app_id, client_type, nullptr, callback, nullptr);
}

int rmqClient_CloseClient(int) { return kInvalidCookie; }

int rmqClient_SendToVSM(rmqClientMessage* message) {
  return message == nullptr ? kNullPointer : kInvalidCookie;
}
