#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace ZemDa {

/// The agent's properties file, as it was when it was last loaded.
///
/// Threads: all operations from any thread.
class DaProperties {
 public:
  static constexpr const char* kPath = "/etc/orlane/zem-tarvik/zem-da.xml";

  /// Replaces the process's properties.  False, after a log line, when the file cannot be used; every
  /// property then has its default.
  static bool Load(const std::string& path = kPath);
  /// The process's properties; those of an absent file before the first load.
  static std::shared_ptr<const DaProperties> Get();

  ~DaProperties();

  /// How long an acknowledgement of the manager may take, in seconds.  1200 when the file does not say it,
  /// 600 when it says more than an hour.
  uint32_t AckTimeout() const;

 private:
  struct Trees;

  explicit DaProperties(std::string path);

  const std::string path_;
  std::unique_ptr<Trees> trees_;
};

}  // namespace ZemDa
