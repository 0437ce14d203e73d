#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zem::zema {

/// The application that was under way when an agent ended, with everything that the end removed from the
/// process and the host.
struct UnfinishedApply {
  enum class Kind {
    kConfiguration,  ///< the stored message is the one to apply again
    kRemoval,        ///< the manager's removal of the node; the stored message may be gone already
    kReset,          ///< the host's own removal of everything
  };
  Kind kind = Kind::kConfiguration;
  /// The message in wire format.  Empty for a configuration of the manager, which is in its own file, and for
  /// a reset.
  std::string message;
  /// The bus header of the message, and the recipient of the answer.
  std::string header;
  std::string correlation_id;
  std::string reply_to;
  /// The routers' MAC addresses before the application, as texts by switch id; empty means no router.
  std::map<std::string, std::string> routers_before;
  /// VIFs of the interfaces that the host was asked to move out of the switches.
  std::vector<std::string> leaving_vifs;
  /// For a migration requested by a file: its request id, and the file to which its outcome is written.
  std::string migration_request;
  std::string migration_result_file;
};

/// Marks on disk that the application of a configuration is under way.  Between Begin and End the host's
/// switches match neither the previous configuration nor the next one, and a start that finds the mark has to
/// finish the application.
///
/// Threads: all operations from any thread.
class ApplyMark {
 public:
  explicit ApplyMark(std::string path) : path_(std::move(path)) {}

  /// Writes the mark, in place of an earlier one.  Returns false, with an error line, when it cannot be
  /// written.
  bool Begin(const UnfinishedApply& apply);
  void End();
  /// Ends the application with this number; does nothing when another one has begun since.
  void End(uint64_t number);
  /// The number of the application that began last.
  uint64_t number();
  /// What an earlier agent left unfinished, or nothing when there is no mark.
  std::optional<UnfinishedApply> Unfinished() const;

  /// Called when a start could not finish the stored configuration.  Until the next application begins, the
  /// host does not have what is stored.
  void SetNotInForce() { not_in_force_ = true; }
  bool not_in_force() const { return not_in_force_; }

 private:
  void EndLocked();

  const std::string path_;
  std::atomic<bool> not_in_force_ = false;
  uint64_t number_ = 0;  // under the mutex
  std::mutex mutex_;     // one writer of the file at a time
};

}  // namespace zem::zema
