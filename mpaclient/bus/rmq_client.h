#pragma once

#include "platform/busclient/rmqclient.h"
#include "platform/core/ref_counted.h"

namespace zem {

/// The bus library as an object, so that a client can be given another one.
///
/// Threads: all operations from any thread.
class RmqClientInterface : public RefCounted<RmqClientInterface, IRefCountable> {
 public:
  /// Runs the library's loop on the calling thread until StopNETEventLoop.
  virtual int NETEventLoop(int options) = 0;
  /// A cookie (positive), or a negative error of the bus.
  virtual int InitNETClient(const char* app_id, const char* app_type, int client_type,
                            rmqClientCallback callback) = 0;
  virtual int CloseClient(int cookie) = 0;
  /// 0, or a negative error.  The caller keeps the message.
  virtual int SendToVSM(rmqClientMessage* message) = 0;
  virtual int InitNETClient_Custom(const char* app_type, const char* app_id, int client_type, void* context,
                                   rmqClientCallback callback, const rmqClientSettings* settings) = 0;
  virtual int StopNETEventLoop() = 0;
};

/// The bus library itself.
class RmqClient : public RmqClientInterface {
 public:
  int NETEventLoop(int options) override;
  int InitNETClient(const char* app_id, const char* app_type, int client_type,
                    rmqClientCallback callback) override;
  int CloseClient(int cookie) override;
  int SendToVSM(rmqClientMessage* message) override;
  int InitNETClient_Custom(const char* app_type, const char* app_id, int client_type, void* context,
                           rmqClientCallback callback, const rmqClientSettings* settings) override;
  int StopNETEventLoop() override;
};

/// The library's loop as a work item: WorkItemImpl<RmqClientEventLoopThread> on a work group.
class RmqClientEventLoopThread : public RefCounted<RmqClientEventLoopThread, IRefCountable> {
 public:
  /// Returns when the loop ends.
  void Run();
};

}  // namespace zem
