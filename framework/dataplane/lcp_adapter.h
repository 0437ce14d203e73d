#pragma once

#include <boost/intrusive_ptr.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "framework/dataplane/lcp_frame.h"
#include "platform/core/ref_counted.h"

namespace google::protobuf {
class Message;
}
namespace orlane::zem::lcp {
class LcpDpMsg;
}

namespace zem {

class AsioZemProvider;
class WorkGroup;

namespace Tarvik {

class DataplaneLink;

/// Carries messages to the local dataplane agent and hands its messages to the applications by their type.
///
/// Threads: all operations from any thread; Start and Stop by the owner.
class LcpAdapter : public RefCounted<LcpAdapter, IRefCountable> {
 public:
  /// Runs on the link's thread under the adapter's mutex: it must not register, and what it does delays all
  /// that comes from the agent.
  using Handler = std::function<void(const google::protobuf::Message&)>;

  /// A path of more than 107 bytes is cut.  The link takes two threads of `work_group` for as long as it
  /// runs.
  LcpAdapter(boost::intrusive_ptr<WorkGroup> work_group, std::string socket_path);
  ~LcpAdapter() override;

  /// `provider` must outlive the adapter.
  virtual void Start(AsioZemProvider& provider);
  void Stop();

  /// Queues the message; waits while the link's queue is full, so never call it on a provider's thread.
  /// False when it was not queued: it is above 16 MiB, not complete, or the link was stopped.
  [[nodiscard]] bool Send(uint8_t frame_type, const orlane::zem::lcp::LcpDpMsg& message);

  /// The same, but never waits: false also while the link's queue is full.
  [[nodiscard]] bool TrySend(uint8_t frame_type, const orlane::zem::lcp::LcpDpMsg& message);

  /// Whether the dataplane agent is connected.
  bool connected() const;

  /// The handler of the sub-messages with the protobuf type `type_name`; replaces one of the same type. Stays
  /// for the life of the adapter.
  void RegisterHandler(const std::string& type_name, Handler handler);

 private:
  class Inbox;

  // Nothing when the message cannot be a frame; null inside when there is no memory for one.
  std::optional<LcpFrame> FrameOf(uint8_t frame_type, const orlane::zem::lcp::LcpDpMsg& message) const;

  boost::intrusive_ptr<DataplaneLink> link_;
  std::string socket_path_;
  const boost::intrusive_ptr<WorkGroup> work_group_;
  const std::shared_ptr<Inbox> inbox_;  // shared with the link, whose loops may outlast the adapter
};

}  // namespace Tarvik
}  // namespace zem
