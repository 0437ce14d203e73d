#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "tests/support/temp_dir.h"

namespace zem::test {

/// The host's tools as scripts on the path of this process: each prints the content of a file of its name and
/// appends its arguments to a journal.
class HostTools {
 public:
  HostTools() : path_before_(std::getenv("PATH")) {
    ::setenv("PATH", (dir_.Path() + ":" + path_before_).c_str(), 1);
  }
  ~HostTools() { ::setenv("PATH", path_before_.c_str(), 1); }

  /// The tool prints `output` and exits with `code`.
  void Set(const std::string& tool, const std::string& output, int code = 0) {
    dir_.Write(tool + ".out", output);
    dir_.Write(tool, "#!/bin/sh\necho " + tool + " \"$@\" >> " + dir_.Path("journal") + "\ncat " +
                         dir_.Path(tool + ".out") + "\nexit " + std::to_string(code) + "\n");
    ::chmod(dir_.Path(tool).c_str(), 0755);
  }
  /// The tool does not end by itself.
  void Hang(const std::string& tool) {
    dir_.Write(tool, "#!/bin/sh\nexec sleep 1000\n");
    ::chmod(dir_.Path(tool).c_str(), 0755);
  }
  /// The calls since the last one of this function, a line each.
  std::string TakeJournal() {
    std::string journal = dir_.Read("journal");
    dir_.Write("journal", "");
    return journal;
  }

 private:
  TempDir dir_;
  const std::string path_before_;
};

}  // namespace zem::test
