#pragma once

#include <string>

namespace zem::sim {

/// Whether a command was taken.
bool WasTaken(const std::string& answer);

/// What two lives can have in common of an answer; the rest of it holds times and numbers of its life.
struct AnswerPart {
  std::string text;
  /// It is what the daemon said, so another text is a difference.
  bool judged = false;
  /// Asking again changes nothing, so an answer that is not there yet can be waited for.
  bool only_asks = false;
};
AnswerPart ComparablePart(const std::string& command, const std::string& answer);

/// What only looks, and is compared at the borders anyway.
bool OnlyLooks(const std::string& command);

}  // namespace zem::sim
