#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace zem::sim {

class ControlClient;

/// How much the lines of a group say.
enum class BorderKind {
  kAction,    ///< what was done, in this order and this often
  kQuestion,  ///< a question with its answer, or something periodic: told once, since the pace decides how
              ///< often
  kState,     ///< how something stands at the end, in no order
};

/// `group` names what the order of the lines means something for.
using BorderReader = std::function<void(BorderKind kind, const std::string& group, std::string line)>;

/// Reads what the peers of a node know of what the daemon did at its borders; with `actions_alone` only what
/// was done.  What a peer cannot say is left out.
void ReadBorders(ControlClient& node, bool actions_alone, const BorderReader& read);
/// The calls of the switch libraries alone.
void ReadLibraryCalls(ControlClient& node, const BorderReader& read);

/// Makes the peers keep what they would otherwise forget; before the daemon starts.
void KeepBorders(ControlClient& node);

/// Whether the command makes the switch libraries forget their calls.
bool ForgetsBorders(std::string_view command);

}  // namespace zem::sim
