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
/// only the first answer is sent.  If the last copy is destroyed without an answer, the client gets an error.
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
  /// The command's name, one word or several joined by "/": "put", "fault/status".
  std::string name;
  /// The arguments as shown by "help": "VDB TYPE OBJECT".
  std::string usage;
  std::string help;
  size_t min_arguments = 0;
  size_t max_arguments = 0;
  /// Called when the number of arguments is right.  It may answer after it has returned; if it throws, the
  /// exception's text is the error.
  std::function<void(const Arguments& arguments, Reply reply)> handler;
  /// If set, the last argument is the rest of the line unchanged, quotes and blanks included.
  bool rest_of_line = false;
};

/// The commands of one process, by name.  "help [COMMAND]" is built in.
///
/// Threads: register first, by one thread; then `Execute` from any.
class CommandTable {
 public:
  CommandTable();
  CommandTable(const CommandTable&) = delete;
  CommandTable& operator=(const CommandTable&) = delete;

  /// Throws std::logic_error when the name is already registered, since that is a programming error.
  void Register(Command command);

  /// Runs one line.  Blanks separate words; quotes ("" or '') keep blanks in a word, and inside "" a
  /// backslash escapes the next character.  An unknown command, a wrong number of arguments and an open quote
  /// are answered with an error that says which it is.
  void Execute(std::string_view line, const Reply& reply) const;

 private:
  void Help(const Arguments& arguments, const Reply& reply) const;

  std::map<std::string, Command, std::less<>> commands_;
};

}  // namespace zem::sim
