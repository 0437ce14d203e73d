#pragma once

#include "platform/busclient/rmqclient.h"
#include "platform/core/ref_counted.h"

namespace zem {

/// The interface of the bus library, so that a test can replace it.
///
/// Threads: all operations from any thread.
class RmqClientInterface : public RefCounted<RmqClientInterface, IRefCountable> {
 public:
  /// Runs the library's loop on the calling thread until StopNETEventLoop.
  virtual int NETEventLoop(int options) = 0;
  /// Returns a cookie (positive), or a negative error of the bus.
  virtual int InitNETClient(const char* app_id, const char* app_type, int client_type,
                            rmqClientCallback callback) = 0;
  virtual int CloseClient(int cookie) = 0;
  /// Returns 0 or a negative error.  The message stays the caller's.
  virtual int SendToVSM(rmqClientMessage* message) = 0;
  virtual int InitNETClient_Custom(const char* app_type, const char* app_id, int client_type, void* context,
                                   rmqClientCallback callback, const rmqClientSettings* settings) = 0;
  virtual int StopNETEventLoop() = 0;
};

/// The bus library.
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

/// Runs the library's loop as a work item: WorkItemImpl<RmqClientEventLoopThread> on a work group.
class RmqClientEventLoopThread : public RefCounted<RmqClientEventLoopThread, IRefCountable> {
 public:
  /// Returns when the loop ends.
  void Run();
};

}  // namespace zem
