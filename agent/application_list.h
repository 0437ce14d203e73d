#pragma once

#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "agent/application.h"

namespace zem::Tarvik {

/// The applications of a running agent: creates, starts, stops and destroys the rows of a table, each in the
/// order that the table gives.
///
/// Threads: all operations by the main thread.
class ApplicationList {
 public:
  /// `table` outlives the list.  `enter_step` is called with the name of each step that may take long.
  ApplicationList(std::span<const ApplicationRow> table, bool host_role,
                  std::function<void(const char* step)> enter_step);
  /// Destroys the applications that are left.
  ~ApplicationList();
  ApplicationList(const ApplicationList&) = delete;
  ApplicationList& operator=(const ApplicationList&) = delete;

  /// Creates the applications and gives their commands to the command server.
  void Create(const ApplicationContext& context);
  /// Starts what the role and the options want, in the order of the table.  Throws what a start throws, and
  /// when a start fails that ends the agent.
  void Start();
  void WaitStarted();
  /// Stops what was started.
  void Stop();
  void Destroy();

 private:
  struct Entry {
    const ApplicationRow* row;
    std::unique_ptr<Application> application;
    bool started = false;
  };

  bool Wanted(const ApplicationRow& row) const;
  void Enter(const char* step) const;
  /// `serves` is what the start gave.
  void AddToStatus(const Entry& entry, bool serves);
  /// The entries in ascending order of one of the ranks.
  std::vector<Entry*> By(int ApplicationRow::*rank);

  std::vector<Entry> entries_;  // in the order of the table
  std::shared_ptr<StatusBoard> status_;
  const bool host_role_;
  const std::function<void(const char*)> enter_step_;
};

}  // namespace zem::Tarvik
