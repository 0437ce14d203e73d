#pragma once

#include <boost/property_tree/ptree_fwd.hpp>
#include <functional>
#include <mutex>
#include <string>

#include "platform/core/clock.h"
#include "platform/core/unique_fd.h"

namespace zem::controller {

/// The file with the controllers, and the way to tell the proxy process that it has changed.
///
/// Other programs of the host may write it too, so whoever reads it to change it holds the lock until then.
///
/// Threads: the flag from any thread, the rest the controllers' worker's.
class ControllerFile {
 public:
  struct Settings {
    std::string path = "/etc/orlane/zem/controller-info.xml";
    /// The path follows it.
    std::string reload_command =
        "/opt/orlane/zem-cli/bin/zem-appctl -t /var/run/orlane/zem-proxy/zem-proxy-cli "
        "controller-info/reload";
    /// False when the daemon stops before the time is over.
    std::function<bool(Duration)> wait;
  };

  explicit ControllerFile(Settings settings);

  /// The lock lives with what is returned; nothing, with a line, when it cannot be had.  Waits for another
  /// holder until the daemon stops.  A file that is not there has no lock: `*missing` then.
  [[nodiscard]] UniqueFd Lock(bool* missing) const;

  enum class Read {
    kDone,
    kMissing,     // there is no file
    kForeign,     // torn, or not a file of controllers
    kUnreadable,  // nothing is known of it
  };
  /// Comments and whitespace are kept.  `tree` is changed with kDone only; else `error` says why.
  [[nodiscard]] Read Load(boost::property_tree::ptree* tree, std::string* error) const;

  /// The same for the content of a file.
  [[nodiscard]] static bool Parse(const std::string& text, boost::property_tree::ptree* tree,
                                  std::string* error);

  /// Replaces the file as a whole, or leaves it as it was and tells why.
  [[nodiscard]] bool Write(const boost::property_tree::ptree& tree) const;

  /// Puts a file that nobody can read out of the way, for people to look at.
  void SetAside() const;

  /// Tells the proxy process to read the file.  0 when it did.
  [[nodiscard]] int Reload(std::string* reply) const;

  const std::string& path() const { return settings_.path; }

  /// Whether this transport node id stands in the file and the proxy process knows.
  bool IsTnUuidSaved(const std::string& id) const;
  void SetTnUuidSaved(const std::string& id);

 private:
  void Examine() const;

  const Settings settings_;
  mutable std::mutex mutex_;  // guards saved_id_
  std::string saved_id_;
};

}  // namespace zem::controller
