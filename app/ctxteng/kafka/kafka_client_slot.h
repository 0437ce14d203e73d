#pragma once

#include <memory>
#include <mutex>

namespace Ctxt::PaceClient {

class KafkaClient;

/// Holds the client that is in use.  A client that is replaced is destroyed on a thread of its own, once its
/// last user has let go of it, because its destruction waits up to 10 seconds for its messages.
///
/// Threads: all operations from any thread; none of them waits, except `Shutdown`.
class KafkaClientSlot {
 public:
  KafkaClientSlot();
  ~KafkaClientSlot();
  KafkaClientSlot(const KafkaClientSlot&) = delete;
  KafkaClientSlot& operator=(const KafkaClientSlot&) = delete;

  /// Takes a new client, or null for none.
  void Replace(std::unique_ptr<KafkaClient> client);
  /// Null while there is none.
  std::shared_ptr<KafkaClient> Get() const;

  /// Drops the client and waits until it, and those before it, are destroyed.  Another one may follow.
  void Shutdown();

 private:
  class Reaper;

  const std::shared_ptr<Reaper> reaper_;
  mutable std::mutex mutex_;  // guards client_
  std::shared_ptr<KafkaClient> client_;
};

}  // namespace Ctxt::PaceClient
