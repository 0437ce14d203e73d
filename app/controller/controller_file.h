#pragma once

#include <boost/property_tree/ptree_fwd.hpp>
#include <functional>
#include <mutex>
#include <string>

#include "framework/tasks/outcome.h"
#include "platform/core/clock.h"
#include "platform/core/unique_fd.h"

namespace zem::controller {

/// The file with the list of controllers, and the command that makes the proxy process read it again.
///
/// Other programs of the host may write the file too, so whoever reads it in order to change it holds the
/// lock from the read to the write.
///
/// Threads: IsTnUuidSaved and SetTnUuidSaved from any thread, the rest from the controllers' worker.
class ControllerFile {
 public:
  struct Settings {
    std::string path = "/etc/orlane/zem/controller-info.xml";
    /// The path of the file is appended to it.
    std::string reload_command =
        "/opt/orlane/zem-cli/bin/zem-appctl -t /var/run/orlane/zem-proxy/zem-proxy-cli "
        "controller-info/reload";
    /// Waits; returns false when the daemon stops before the time is over.
    std::function<bool(Duration)> wait;
  };

  explicit ControllerFile(Settings settings);

  /// Locks the file until the returned descriptor is closed.  Waits for another holder until the daemon
  /// stops. Returns no descriptor, after a log line, when the file cannot be locked; when the file does not
  /// exist,
  /// `*missing` is set as well.
  [[nodiscard]] UniqueFd Lock(bool* missing) const;

  enum class Read {
    kDone,
    kMissing,     // there is no file
    kForeign,     // incomplete, or not a file of controllers
    kUnreadable,  // the file cannot be read, so nothing is known of its content
  };
  /// Reads the file with its comments and whitespace.  `tree` changes only with kDone; otherwise `error` is
  /// set.
  [[nodiscard]] Read Load(boost::property_tree::ptree* tree, std::string* error) const;

  /// Reads the content of a file; `tree` changes only if that succeeds.
  static Outcome Parse(const std::string& text, boost::property_tree::ptree* tree);

  /// Replaces the file as a whole.  When that fails, the file is unchanged and the reason is logged.
  [[nodiscard]] bool Write(const boost::property_tree::ptree& tree) const;

  /// Renames a file that cannot be parsed, so that an operator can examine it.
  void SetAside() const;

  /// Makes the proxy process read the file.  Returns the result code of the reload command, 0 for success.
  [[nodiscard]] int Reload(std::string* reply) const;

  const std::string& path() const { return settings_.path; }

  /// Whether the file has this transport node id and the proxy process has read it.
  bool IsTnUuidSaved(const std::string& id) const;
  void SetTnUuidSaved(const std::string& id);

 private:
  void Examine() const;

  const Settings settings_;
  mutable std::mutex mutex_;  // guards saved_id_
  std::string saved_id_;
};

}  // namespace zem::controller
