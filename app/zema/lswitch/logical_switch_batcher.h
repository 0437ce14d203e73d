#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "app/zema/lswitch/logical_switch_msg_task.h"
#include "framework/tasks/outcome.h"

namespace zem::zema {

class CoveDbHandler;

/// Gathers updates of logical switches and has the host carry them out: removals first, then the rest, in
/// chunks.
///
/// An acknowledgement goes where its update came from: with the reply-to "covedb" to the store, with any
/// other to the sender that came with it.  The store's barrier is sent with the last chunk of a batch,
/// because only then is everything up to it realized.
///
/// Threads: the logical switch worker's.
class LogicalSwitchMsgTask::Batcher final : public BatchRunnable {
 public:
  explicit Batcher(std::shared_ptr<LogicalSwitchContext> context);

  void AddTask(Runnable* task) override;
  void Reset() override;
  /// The number of reply-to keys in both maps.
  long Count() const override;
  /// Adds a barrier, which is sent with the acknowledgements of this batch.
  void UpdateBatcher(Runnable* task) override;
  void Run() override;

 private:
  using Ack = std::pair<std::string, int32_t>;  // uuid, revision; -1 for a removal
  struct Chunk {
    std::string reply_to;
    bool is_apply = false;
    bool full = false;
    std::string payload;
    size_t entries = 0;
    std::vector<Ack> acks;
  };

  void DropSuperseded();
  void TakeBarrier(uint64_t barrier, uint64_t epoch);
  void DeleteLsInCorvd(const std::string& reply_to, const std::set<std::string>& uuids);
  void ApplyLsInCorvd(const std::string& reply_to, const Zones& zones);
  void RunLocked();
  void ReadSkipped();
  void AddToChunk(const std::string& zone, bool kln, const std::string& uuid, const Record& record,
                  Chunk* chunk);
  void RefuseLs(const std::string& reply_to, const std::string& uuid, const std::string& field);
  void CloseChunk(Chunk* chunk, size_t limit);
  void Send(const Chunk& chunk, bool last_of_store);
  Outcome CallLumOpaqueNetwork(bool is_apply, const std::string& payload);
  void SendAck(const Chunk& chunk, uint64_t barrier, bool last_of_store);
  void SendAckToStore(const Chunk& chunk, uint64_t barrier, bool last_of_store);

  const std::shared_ptr<LogicalSwitchContext> context_;
  std::map<std::string, Zones> apply_;
  std::map<std::string, std::set<std::string>> deletes_;
  std::map<std::string, MpaMessageSender*> senders_;
  std::unordered_set<std::string> deleted_in_batch_;
  std::vector<std::string> skipped_of_store_;
  std::vector<Chunk> chunks_;
  uint64_t barrier_ = 0;  // the largest of this epoch; kept between batches
  uint64_t epoch_;
  uint64_t generation_;
  uint64_t manager_generation_;
  bool store_failed_ = false;  // a chunk of the store failed in this run
  bool owes_barrier_ = false;  // a barrier was added and has to be sent with this batch
  wft::TraceContext trace_info_;
};

}  // namespace zem::zema
