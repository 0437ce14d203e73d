#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <iostream>
#include <iterator>
#include <string>

#include "sim/sandbox/sandbox.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace zem::test {

/// Tests whose bodies run in a forked child with its own namespaces, where GoogleTest cannot report.  A body
/// returns 0 for success and uses SANDBOX_EXPECT.
class SandboxTest : public ::testing::Test {
 protected:
  int Run(const std::function<int()>& body) {
    return sim::RunInSandbox({directory_.Path(), "/bin/true"}, body);
  }

  /// The node's directory as the body sees it.
  TempDir directory_;
};

inline size_t OpenDescriptors() {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                           std::filesystem::directory_iterator()));
}

}  // namespace zem::test

/// Prints the first expectation that does not hold, with the lines in the LogCapture `log`, and ends the body
/// with 1.
#define SANDBOX_EXPECT(condition)                                            \
  do {                                                                       \
    if (!(condition)) {                                                      \
      std::cerr << __FILE__ << ":" << __LINE__ << ": " #condition << "\n";   \
      for (const std::string& text : log.Texts()) std::cerr << text << "\n"; \
      return 1;                                                              \
    }                                                                        \
  } while (false)
