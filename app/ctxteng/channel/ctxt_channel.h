#pragma once

#include <functional>
#include <memory>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "app/ctxteng/base/ctxt_msg.h"

namespace zem {
class AsioZemProvider;
}

namespace Ctxt {

class MpaChannel;

/// The channel to the manager as the engine's clients see it: messages by application id.
///
/// Threads: `Initialize` and `Shutdown` by the owner; the others from any thread.  Callbacks run on the
/// channel's one thread with no lock held, in the order of arrival.
class CtxtChannel {
 public:
  using Callback = std::function<void(const std::shared_ptr<CtxtMsg>& message)>;

  static CtxtChannel& GetInstance();

  /// `link` outlives the channel.
  explicit CtxtChannel(MpaChannel& link);
  virtual ~CtxtChannel();
  CtxtChannel(const CtxtChannel&) = delete;
  CtxtChannel& operator=(const CtxtChannel&) = delete;

  void Initialize(zem::AsioZemProvider& provider);
  void Shutdown();

  /// Throws CtxtChannelError when the application id is registered already.
  virtual void RegisterClient(const std::string& app_id, const std::string& app_type, Callback callback);
  /// Returns the status of the manager client, negative on failure, and 0 also for an application id that is
  /// not registered.  Throws CtxtProtobufError when the payload cannot be serialised.
  virtual int SendMsg(const CtxtMsg& message, bool is_request);

 private:
  struct ClientInfo {
    std::string app_type;
    Callback callback;
  };

  void RecvMsg(const std::shared_ptr<CtxtMsg>& message, const std::string& app_id);
  void DumpClientMap() const;

  MpaChannel& link_;
  zem::AsioZemProvider* provider_ = nullptr;
  mutable std::shared_mutex client_map_lock_;  // guards client_map_; never held over a call
  std::unordered_map<std::string, ClientInfo> client_map_;
};

}  // namespace Ctxt
