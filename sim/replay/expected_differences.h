#pragma once

#include <boost/regex.hpp>
#include <string>
#include <vector>

#include "sim/replay/borders.h"

namespace zem::sim {

/// The differences that a release's notes announce.
///
/// In the notes they stand in blocks that begin with "```differences" and end with "```", a line each: the
/// mark of the difference ('-', '+' or '~'), a blank, and a pattern for the whole of "GROUP: LINE", or of
/// "GROUP" for another order.
class ExpectedDifferences {
 public:
  ExpectedDifferences() = default;
  /// Throws std::runtime_error for a file without such a block, and for a line that is no such pattern.
  static ExpectedDifferences Read(const std::string& path);

  /// Whether the difference is among them.
  bool Takes(const Difference& difference);
  /// Those that nothing has been like so far.
  std::vector<std::string> Unseen() const;

 private:
  struct Row {
    std::string text;
    char mark;
    boost::regex pattern;
    bool seen = false;
  };
  std::vector<Row> rows_;
};

}  // namespace zem::sim
