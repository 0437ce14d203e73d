#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/core/clock.h"

namespace zem::zema {

/// A client of the edge's own service: one HTTP request per connection.
///
/// Threads: any that may wait, up to the limit; the daemon's shutdown ends the wait.
class EdgeService {
 public:
  struct Settings {
    std::string address = "127.0.0.1";
    uint16_t port = 7441;
    /// The limit for the whole exchange.
    Duration limit = std::chrono::seconds(30);
  };

  static constexpr size_t kLongestAnswer = 1 << 20;

  EdgeService() : EdgeService(Settings()) {}
  explicit EdgeService(Settings settings) : settings_(std::move(settings)) {}

  enum class Outcome {
    kEnabled,   // the edge is in maintenance mode
    kDisabled,  // it is not
    kFailed,    // the mode is unknown; the reason has been logged
  };
  /// Requests the mode and reads the outcome; sets `error` to the reason with kFailed.
  [[nodiscard]] Outcome SetMaintenanceMode(bool on, std::string* error) const;

  /// Reads the outcome from the bytes of an answer, up to the end of the connection.
  [[nodiscard]] static Outcome ReadAnswer(std::string_view answer, std::string* error);

 private:
  class Connection;

  std::string Request(bool on) const;

  const Settings settings_;
};

}  // namespace zem::zema
