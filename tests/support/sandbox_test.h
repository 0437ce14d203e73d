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

/// Tests whose bodies run in a forked child with namespaces of its own, where GoogleTest cannot report: they
/// return 0 for success and use SANDBOX_EXPECT.
class SandboxTest : public ::testing::Test {
 protected:
  int Run(const std::function<int()>& body) {
    return sim::RunInSandbox({directory_.Path(), "/bin/true"}, body);
  }

  /// What the body sees as its node's directory.
  TempDir directory_;
};

inline size_t OpenDescriptors() {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                           std::filesystem::directory_iterator()));
}

}  // namespace zem::test

/// The first expectation that does not hold is printed with what the LogCapture `log` has, and ends the body
/// with 1.
#define SANDBOX_EXPECT(condition)                                            \
  do {                                                                       \
    if (!(condition)) {                                                      \
      std::cerr << __FILE__ << ":" << __LINE__ << ": " #condition << "\n";   \
      for (const std::string& text : log.Texts()) std::cerr << text << "\n"; \
      return 1;                                                              \
    }                                                                        \
  } while (false)
