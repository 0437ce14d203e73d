#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sim/control/json.h"

namespace zem::sim {

/// The answer to one command: `{"ok":true,"result":...}` or `{"ok":false,"error":"..."}`.  Copies share it;
/// the first answer counts.  When the last copy goes unanswered, the asker is told so.
///
/// Threads: all operations from any thread.
class Reply {
 public:
  using Send = std::function<void(Json)>;
  explicit Reply(Send send);

  void Ok() const;
  void Ok(Json result) const;
  void Fail(std::string_view error) const;

 private:
  class State;
  std::shared_ptr<State> state_;
};

using Arguments = std::vector<std::string>;

struct Command {
  /// One word or several: "put", "fault/status".
  std::string name;
  /// The arguments for people: "VDB TYPE OBJECT".
  std::string usage;
  std::string help;
  size_t min_arguments = 0;
  size_t max_arguments = 0;
  /// Runs when the number of arguments is right.  It may answer later; an exception is answered with its
  /// text.
  std::function<void(const Arguments& arguments, Reply reply)> handler;
  /// The last argument is the rest of the line as it stands, quotes and blanks included.
  bool rest_of_line = false;
};

/// The commands of one process, by name.  "help [COMMAND]" is always there.
///
/// Threads: register first, by one thread; then `Execute` from any.
class CommandTable {
 public:
  CommandTable();
  CommandTable(const CommandTable&) = delete;
  CommandTable& operator=(const CommandTable&) = delete;

  /// A name that is there already is an error of the program: throws std::logic_error.
  void Register(Command command);

  /// Runs one line.  Words are divided by blanks; quotes ("" or '') hold blanks together, inside "" a
  /// backslash takes the next character as it stands.  An unknown command, a wrong number of arguments or an
  /// open quote is answered with a text that says so.
  void Execute(std::string_view line, const Reply& reply) const;

 private:
  void Help(const Arguments& arguments, const Reply& reply) const;

  std::map<std::string, Command, std::less<>> commands_;
};

}  // namespace zem::sim
