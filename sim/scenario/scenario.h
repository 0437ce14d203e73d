#pragma once

#include <iosfwd>
#include <map>
#include <string>
#include <vector>

namespace zem::sim {

class ControlClient;

/// Runs the commands of a file on a node and checks what comes back.
///
///     # a comment
///     step The proxy dies                 prints a headline, and the duration of the last step
///     manager state                       a command: has to be answered "ok"
///     fails manager master nobody         a command that has to be refused
///     try cli set/loglevel info           a command that may be refused or get no answer
///     await SECONDS daemon/state          a command that has to be answered "ok" within a time
///     second COMMAND                      the command on the second node, also after "fails", "try", "await"
///     expect PATH == VALUE                on the last answer; PATH is dotted, "[N]" an element, "error" a
///                                         refusal; also != >= <= and ~ PATTERN
///     expect PATH == VALUE within SECONDS repeats the last command until it holds
///     expect log ~ PATTERN [within SECONDS]
///                                         a line of the node's log since the step began (in the first step:
///                                         since the node's start); 2 seconds unless specified
///     expect no log ~ PATTERN             no such line since the step began
///     expect file PATH ~ PATTERN [within SECONDS]
///     show PATH                           prints a part of the last answer; "show node" the node's picture
///     keep NAME PATH                      keeps a part of the last answer as ${NAME} for the lines after it
///     let NAME TEXT                       keeps the text as ${NAME}; kept names in it are replaced
///     each NAME; NAME                     runs the lines down to "done" once for each of the rows that
///     | VALUE; VALUE                      follow; ${NAME} is replaced by the row's value
///     ...
///     done
///
/// Stops at the first line that does not hold and prints that line with the value that was found instead.
class Scenario {
 public:
  /// `second`: another node, or null.
  Scenario(ControlClient& node, std::ostream& out, ControlClient* second = nullptr);

  /// Returns true when every line held.
  bool Run(std::istream& lines, const std::string& name);

 private:
  struct Numbered {
    int number;
    std::string text;
  };
  /// `failed` receives the line that did not hold.
  bool Lines(const Numbered* begin, const Numbered* end, const Numbered** failed);
  bool Line(const std::string& text);
  enum class Outcome { kOk, kRefusal, kAny };
  bool Command(const std::string& line, Outcome wanted, bool again = false);
  bool Expect(const std::string& condition);
  bool Await(const std::string& text);
  bool Show(const std::string& path);
  bool Keep(const std::string& text);
  void EndStep();
  bool NothingIsLeft();
  void PrintLogTail();
  unsigned long long LastLogNumber();

  std::string Execute(const std::string& command, bool again = false);

  ControlClient& node_;
  ControlClient* const second_;
  std::ostream& out_;
  std::map<std::string, std::string> kept_;
  std::string last_command_;
  std::string last_answer_;
  std::string problem_;
  std::string step_;
  long long step_begin_ns_ = 0;
  // The first step searches the log from the node's start.
  bool first_step_ = true;
  unsigned long long step_log_ = 0;
};

}  // namespace zem::sim
