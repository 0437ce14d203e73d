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
///     step The proxy dies                 prints a headline; the time of each step is told
///     manager state                       a command: has to be answered "ok"
///     fails manager master nobody         a command that has to be refused
///     try cli set/loglevel info           a command that may be refused, or answered by nobody
///     await SECONDS daemon/state          a command that has to be answered "ok" within a time
///     second COMMAND                      the command on the second node, also behind "fails", "try",
///     "await" expect PATH == VALUE                on the last answer; PATH is dotted, "[N]" an element,
///     "error" a
///                                         refusal; also != >= <= and ~ PATTERN
///     expect PATH == VALUE within SECONDS repeats the last command until it holds
///     expect log ~ PATTERN [within SECONDS]        a line of the node's log since the step began (in the
///                                                  first: since the node's start); 2 seconds unless told
///                                                  otherwise
///     expect no log ~ PATTERN             none since the step began
///     expect file PATH ~ PATTERN [within SECONDS]
///     show PATH                           prints a part of the last answer; "show node" the node's picture
///     keep NAME PATH                      keeps a part of the last answer; ${NAME} stands for it from here
///     on
///     let NAME TEXT                       ${NAME} stands for the text, in which names kept before stand
///                                         for theirs
///     each NAME; NAME                     the lines down to "done", once for each of the rows that
///     | VALUE; VALUE                      follow; ${NAME} stands for the row's value
///     ...
///     done
///
/// Stops at the first line that does not hold and tells which it was and what was there instead.
class Scenario {
 public:
  /// `second`: another node, or null.
  Scenario(ControlClient& node, std::ostream& out, ControlClient* second = nullptr);

  /// True when every line held.
  bool Run(std::istream& lines, const std::string& name);

 private:
  struct Numbered {
    int number;
    std::string text;
  };
  /// `failed` tells the line that did not hold.
  bool Lines(const Numbered* begin, const Numbered* end, const Numbered** failed);
  bool Line(const std::string& text);
  enum class Outcome { kOk, kRefusal, kAny };
  bool Command(const std::string& line, Outcome wanted);
  bool Expect(const std::string& condition);
  bool Await(const std::string& text);
  bool Show(const std::string& path);
  bool Keep(const std::string& text);
  void EndStep();
  bool NothingIsLeft();
  unsigned long long LastLogNumber();

  std::string Execute(const std::string& command);

  ControlClient& node_;
  ControlClient* const second_;
  std::ostream& out_;
  std::map<std::string, std::string> kept_;
  std::string last_command_;
  std::string last_answer_;
  std::string problem_;
  std::string step_;
  long long step_begin_ns_ = 0;
  // The first step sees the log from the node's start.
  bool first_step_ = true;
  unsigned long long step_log_ = 0;
};

}  // namespace zem::sim
