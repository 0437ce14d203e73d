#pragma once

#include <string>
#include <utility>

#include "framework/tasks/runnable.h"

namespace zem {

/// A task that carries one message from the manager and what a reply to it needs.  `Sender` is what the
/// application replies through.
template <class Sender, class Msg>
class MpaMessageTask : public Runnable {
 public:
  /// `sender` may be null; it must outlive the task.
  MpaMessageTask(Sender* sender, std::string correlation_id, std::string reply_to, Msg message)
      : sender_(sender),
        correlation_id_(std::move(correlation_id)),
        reply_to_(std::move(reply_to)),
        message_(std::move(message)) {}

 protected:
  Sender* const sender_;
  const std::string correlation_id_;
  const std::string reply_to_;
  Msg message_;
};

}  // namespace zem
