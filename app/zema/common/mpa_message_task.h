#pragma once

#include <string>
#include <utility>

#include "app/zema/common/runnable.h"

namespace zem::zema {

class MpaMessageSender;

/// A task that carries one message of the manager, and what an answer needs.
template <class Msg>
class MpaMessageTask : public Runnable {
 public:
  /// `sender` may be null; it must outlive the task.
  MpaMessageTask(MpaMessageSender* sender, std::string correlation_id, std::string reply_to, Msg message)
      : sender_(sender),
        correlation_id_(std::move(correlation_id)),
        reply_to_(std::move(reply_to)),
        message_(std::move(message)) {}

 protected:
  MpaMessageSender* const sender_;
  const std::string correlation_id_;
  const std::string reply_to_;
  Msg message_;
};

}  // namespace zem::zema
