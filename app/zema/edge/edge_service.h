#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/core/clock.h"

namespace zem::zema {

/// The edge's own service: one HTTP request per connection.
///
/// Threads: any that may wait, up to the limit; the daemon's shutdown ends the wait.
class EdgeService {
 public:
  struct Settings {
    std::string address = "127.0.0.1";
    uint16_t port = 7441;
    /// For the whole exchange.
    Duration limit = std::chrono::seconds(30);
  };

  static constexpr size_t kLongestAnswer = 1 << 20;

  EdgeService() : EdgeService(Settings()) {}
  explicit EdgeService(Settings settings) : settings_(std::move(settings)) {}

  enum class Outcome {
    kEnabled,   // the edge is in maintenance mode
    kDisabled,  // it is not
    kFailed,    // nobody knows; a line has told why
  };
  /// Asks for the mode, and reads what became of it; `error` says why with kFailed.
  [[nodiscard]] Outcome SetMaintenanceMode(bool on, std::string* error) const;

  /// What the bytes of an answer, up to the end of the connection, say.
  [[nodiscard]] static Outcome ReadAnswer(std::string_view answer, std::string* error);

 private:
  class Connection;

  std::string Request(bool on) const;

  const Settings settings_;
};

}  // namespace zem::zema
