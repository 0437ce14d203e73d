#pragma once

#include <memory>

#include "platform/core/unique_fd.h"

namespace zem {
class AsioZemProvider;
}

namespace zem::Tarvik {

/// Reads what a script prints, so that the script never waits for a reader.  The lines go to the log at debug
/// level, ten a second at most.
///
/// Threads: the pipe is read on the provider's threads; constructed and destroyed on any.
class ScriptOutput {
 public:
  ScriptOutput(AsioZemProvider& provider, UniqueFd pipe);
  /// Stops reading.
  ~ScriptOutput();
  ScriptOutput(const ScriptOutput&) = delete;
  ScriptOutput& operator=(const ScriptOutput&) = delete;

 private:
  class Reader;
  const std::shared_ptr<Reader> reader_;
};

}  // namespace zem::Tarvik
