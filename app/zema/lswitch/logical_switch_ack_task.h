#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "framework/tasks/runnable.h"

namespace zem::zema {

class MpaMessageSender;

/// The acknowledgement of one logical switch to the manager; only data for the batcher, so Run does nothing.
class LogicalSwitchAckTask final : public Runnable {
 public:
  LogicalSwitchAckTask(std::string uuid, int32_t revision, std::string reply_to, MpaMessageSender* sender)
      : uuid_(std::move(uuid)), revision_(revision), reply_to_(std::move(reply_to)), sender_(sender) {}

  void Run() override {}

  const std::string& uuid() const { return uuid_; }
  int32_t revision() const { return revision_; }
  const std::string& reply_to() const { return reply_to_; }
  MpaMessageSender* sender() const { return sender_; }

 private:
  const std::string uuid_;
  const int32_t revision_;
  const std::string reply_to_;
  MpaMessageSender* const sender_;
};

/// Gathers acknowledgements into one message for each reply-to.
///
/// Threads: the acknowledgement worker's.
class LogicalSwitchBatchMsgTask final : public BatchRunnable {
 public:
  void AddTask(Runnable* task) override;
  void Reset() override;
  /// The number of reply-to keys.
  long Count() const override { return static_cast<long>(entries_.size()); }
  void Run() override;

 private:
  std::map<std::string, std::map<std::string, int32_t>> entries_;  // by reply-to, by uuid: the revision
  MpaMessageSender* sender_ = nullptr;                             // of the first acknowledgement
};

}  // namespace zem::zema
