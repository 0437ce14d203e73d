#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "app/ctxteng/base/ctxt_msg.h"
#include "app/ctxteng/channel/record_queue.h"
#include "platform/core/thread.h"

struct rmqClientMessage;

namespace zem {
class AsioZemProvider;
class MpaClient;
}  // namespace zem

namespace Ctxt {

/// The link to the manager: one manager client per application type, and one thread that delivers what
/// arrives, in order.
///
/// Threads: `Start` and `Stop` by the owner; the others from any thread.  Callbacks run on the channel's
/// thread with no lock held; a slow one delays the messages of the others.
class MpaChannel {
 public:
  using Callback = std::function<void(const std::shared_ptr<CtxtMsg>& message, const std::string& app_id)>;

  static MpaChannel& GetInstance();

  MpaChannel();
  virtual ~MpaChannel();
  MpaChannel(const MpaChannel&) = delete;
  MpaChannel& operator=(const MpaChannel&) = delete;

  void Start();
  /// Closes every client and waits for the thread; what still waits in the queue is not delivered.
  void Stop();

  /// Registers the application with the manager client and connects it.  `cookie` is not used.  Throws what
  /// the manager client throws; the application is then not registered.
  virtual void RegisterClient(const std::string& app_id, const std::string& app_type, Callback callback,
                              int cookie, zem::AsioZemProvider& provider);
  /// Sends as a record of the type `message_type`.  Returns the manager client's status, negative on failure.
  /// Throws CtxtProtobufError when the payload cannot be serialised.
  virtual int SendMsg(const CtxtMsg& message, int32_t message_type, const std::string& app_type);

 private:
  struct ClientInfo {
    std::string app_id;
    std::string app_type;
    Callback callback;
    bool connected = true;
    std::shared_ptr<zem::MpaClient> stub;
  };

  void Receive(const rmqClientMessage& message);
  void Deliver();
  void Process(const zem::BusRecord& record);
  void TakeClose(const std::string& app_type);
  bool AnyConnected() const;
  std::vector<ClientInfo> Clients() const;
  std::string CorrelationIdOf(const CtxtMsg& message) const;

  std::atomic<bool> stopping_{false};
  RecordQueue queue_;
  zem::NativeThread thread_;
  mutable std::shared_mutex clients_lock_;  // guards clients_; never held over a call of a client
  std::unordered_map<std::string, ClientInfo> clients_;
};

}  // namespace Ctxt
