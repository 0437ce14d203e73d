#pragma once

#include <array>
#include <atomic>
#include <boost/intrusive_ptr.hpp>
#include <string>
#include <string_view>

#include "framework/hostapi/lum_link.h"
#include "mpaclient/vertical/vertical_client.h"
#include "platform/core/long_mutex.h"
#include "platform/core/ref_counted.h"
#include "platform/core/stop_signal.h"
#include "platform/provider/bounded_queue.h"

namespace zem {
class WorkGroup;
}

namespace zem::Tarvik {

class LumClient;

/// Relays the manager's question and the host's answer, byte by byte, and asks the host for a sign of life
/// every 30 seconds, which is what finds a link that has failed between the questions.
///
/// A question that the host does not answer remains without an answer; the manager's own time-out ends it.
///
/// Threads: `Start` and `Stop` by the owner; `RpcCommand` from any thread that may wait.  Two threads of the
/// work group belong to the object from start to stop.
class LldpQub : public RefCounted<LldpQub, IRefCountable> {
 public:
  /// The longest question with its command, and the longest answer, in bytes.
  static constexpr size_t kBufferSize = 10240;

  static constexpr const char* kSocket = "/etc/orlane/zem-tarvik/LldpLum";

  LldpQub(AsioZemProvider& provider, boost::intrusive_ptr<WorkGroup> work_group,
          boost::intrusive_ptr<LumClient> client,
          boost::intrusive_ptr<LumLink> link = boost::intrusive_ptr<LumLink>(new LumLink(kSocket)));
  ~LldpQub() override;
  LldpQub(const LldpQub&) = delete;
  LldpQub& operator=(const LldpQub&) = delete;

  void Start();
  void Stop();

  /// Asks the host.  Returns the length of the answer, which is in `*answer`; -1 after an error line.
  [[nodiscard]] int RpcCommand(std::string_view command, std::string_view argument, std::string* answer);

 private:
  /// A question that waits for its turn.
  struct Question {
    std::string payload;
    std::string correlation_id;
    std::string reply_to;
  };

  void Receive(const VerticalRecord& record);
  void Answer(const Question& question);
  void SendLoop();
  void PingLoop();
  bool SendCommand(std::string_view command, std::string_view argument);
  /// The whole answer; its length, or -1.
  int ReceiveReply();
  void Discard(uint32_t length);

  const boost::intrusive_ptr<WorkGroup> work_group_;
  const boost::intrusive_ptr<LumClient> client_;
  const boost::intrusive_ptr<LumLink> link_;
  VerticalClient vertical_;
  BoundedQueue<Question> questions_;
  StopSignal ping_stop_;

  LongMutex exchange_mutex_;  // held over a whole exchange with the host; guards the buffers
  std::array<char, kBufferSize> received_;
  std::array<char, kBufferSize> sent_;
};

}  // namespace zem::Tarvik
