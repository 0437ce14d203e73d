#pragma once

#include <stdexcept>
#include <string>

/// `zem-tarvikctl`: what operators and their programs ask a running daemon.
namespace zem::ctl {

/// The program's exit codes; scripts rely on them.
enum ExitCode : int {
  kHealthy = 0,
  kDegraded = 1,  ///< the daemon is degraded, or refused the question
  kUsage = 2,
  kNoDaemon = 3,  ///< none runs, or it did not answer in time
};

/// Ends the program with `code` and the text on the error output.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}
  ExitCode code() const { return code_; }

 private:
  ExitCode code_;
};

}  // namespace zem::ctl
