#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zem::zema {

/// An attachment or a detachment on this host that the manager has not heard of.
struct ResyncCommand {
  enum class Operation { kAttach, kDetach };

  Operation operation = Operation::kAttach;
  std::string vif_id;
  std::string ls_id;
  std::string gcf_path;
  /// Empty where the script does not know it.
  std::string port_id;
  /// As the script printed it.
  std::string text;
};

/// What the script for the comparison with the host prints, in one line: "ok", "error...", or commands with a
/// comma between them, each of tokens with "|" between them.
class ResyncReply {
 public:
  enum class Kind { kUseless, kNothingToDo, kCommands };

  /// More in one reply than any host has interfaces is not believed.
  static constexpr size_t kMostCommands = 100'000;

  /// `text` has to outlive the reply.
  explicit ResyncReply(std::string_view text);

  Kind kind() const { return kind_; }
  /// Of kCommands, in order; may be wrong each.
  const std::vector<std::string_view>& commands() const { return commands_; }

  /// Nothing for an operation that nobody knows, and, with an error line, for a malformed one.
  [[nodiscard]] static std::optional<ResyncCommand> Parse(std::string_view command);

 private:
  Kind kind_ = Kind::kUseless;
  std::vector<std::string_view> commands_;
};

}  // namespace zem::zema
