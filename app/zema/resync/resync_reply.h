#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zem::zema {

/// An attachment or a detachment on this host that the manager does not know.
struct ResyncCommand {
  enum class Operation { kAttach, kDetach };

  Operation operation = Operation::kAttach;
  std::string vif_id;
  std::string ls_id;
  std::string gcf_path;
  /// Empty when the script does not know the port.
  std::string port_id;
  /// As the script printed it.
  std::string text;
};

/// The output of the script that compares with the host, in one line: "ok", "error...", or a comma-separated
/// list of commands, whose tokens are separated by "|".
class ResyncReply {
 public:
  enum class Kind { kUseless, kNothingToDo, kCommands };

  /// A reply with more commands than any host has interfaces is rejected.
  static constexpr size_t kMostCommands = 100'000;

  /// `text` has to outlive the reply.
  explicit ResyncReply(std::string_view text);

  Kind kind() const { return kind_; }
  /// The unparsed commands of a kCommands reply, in order.
  const std::vector<std::string_view>& commands() const { return commands_; }

  /// Parses one command.  Returns nothing for an unknown operation and, after an error line, for a malformed
  /// command.
  [[nodiscard]] static std::optional<ResyncCommand> Parse(std::string_view command);

 private:
  Kind kind_ = Kind::kUseless;
  std::vector<std::string_view> commands_;
};

}  // namespace zem::zema
