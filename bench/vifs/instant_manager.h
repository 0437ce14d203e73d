#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "app/zema/manager/port_attached.h"

namespace zem::bench {

/// A manager that answers at once, from a thread of its own that corresponds to the agent's receive thread.
///
/// Threads: Ask from any.
class InstantManager {
 public:
  using Answer = std::function<void(const std::string& rpc_id, std::unique_ptr<zema::PortAttached>)>;

  explicit InstantManager(Answer answer);
  ~InstantManager();

  /// A VIF's port has the VIF's number.  The answer to a detach names nothing, as after a move.
  void Ask(bool attach, const std::string& rpc_id, const std::string& vif, const std::string& ls);

 private:
  struct Question {
    bool attach;
    std::string rpc_id;
    std::string vif;
    std::string ls;
  };
  static void Fill(const Question& question, zema::PortAttached* port);
  void Serve();

  const Answer answer_;
  std::mutex mutex_;  // guards all below
  std::condition_variable asked_;
  std::deque<Question> questions_;
  bool stopped_ = false;
  std::thread thread_;
};

}  // namespace zem::bench
