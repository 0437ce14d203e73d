#include "sim/control/command_table.h"

#include <atomic>
#include <exception>
#include <optional>
#include <stdexcept>
#include <utility>

namespace zem::sim {

class Reply::State {
 public:
  explicit State(Send send) : send_(std::move(send)) {}
  ~State() {
    try {
      if (!answered_.load()) Answer(false, nullptr, "the command ended without an answer");
    } catch (const std::exception&) {
      // Out of memory while reporting the missing answer: the client's own time-out ends its wait.
    }
  }

  void Answer(bool ok, Json result, std::string_view error) {
    if (answered_.exchange(true)) return;
    Json answer = JsonObject();
    AddMember(answer.get(), "ok", ok);
    if (result) AddMember(answer.get(), "result", std::move(result));
    if (!ok) AddMember(answer.get(), "error", error);
    send_(std::move(answer));
  }

 private:
  Send send_;
  std::atomic<bool> answered_{false};
};

Reply::Reply(Send send) : state_(std::make_shared<State>(std::move(send))) {}
void Reply::Ok() const { state_->Answer(true, nullptr, {}); }
void Reply::Ok(Json result) const { state_->Answer(true, std::move(result), {}); }
void Reply::Fail(std::string_view error) const { state_->Answer(false, nullptr, error); }

namespace {

constexpr bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// Takes one word after the other off the front of a line.
class Words {
 public:
  explicit Words(std::string_view line) : rest_(line) { SkipBlanks(); }

  bool empty() const { return rest_.empty(); }
  std::string_view rest() const { return rest_; }

  // Returns nothing when a quote is not closed.
  std::optional<std::string> Take() {
    std::string word;
    char quote = 0;
    size_t i = 0;
    for (; i < rest_.size(); ++i) {
      const char c = rest_[i];
      if (quote == 0 && IsBlank(c)) break;
      if (quote == 0 && (c == '"' || c == '\'')) {
        quote = c;
      } else if (quote != 0 && c == quote) {
        quote = 0;
      } else if (quote == '"' && c == '\\' && i + 1 < rest_.size()) {
        word += rest_[++i];
      } else {
        word += c;
      }
    }
    if (quote != 0) return std::nullopt;
    rest_.remove_prefix(i);
    SkipBlanks();
    return word;
  }

 private:
  void SkipBlanks() {
    while (!rest_.empty() && IsBlank(rest_.front())) rest_.remove_prefix(1);
    while (!rest_.empty() && IsBlank(rest_.back())) rest_.remove_suffix(1);
  }

  std::string_view rest_;
};

Json Describe(const Command& command) {
  Json entry = JsonObject();
  AddMember(entry.get(), "command", command.name);
  AddMember(entry.get(), "usage", command.usage.empty() ? command.name : command.name + " " + command.usage);
  AddMember(entry.get(), "help", command.help);
  return entry;
}

}  // namespace

CommandTable::CommandTable() {
  Register({"help", "[COMMAND]", "Lists the commands, or tells about one.", 0, 1,
            [this](const Arguments& arguments, const Reply& reply) { Help(arguments, reply); }});
}

void CommandTable::Register(Command command) {
  if (commands_.count(command.name) != 0) throw std::logic_error("command registered twice: " + command.name);
  std::string name = command.name;
  commands_.emplace(std::move(name), std::move(command));
}

void CommandTable::Help(const Arguments& arguments, const Reply& reply) const {
  if (!arguments.empty()) {
    const auto found = commands_.find(arguments[0]);
    if (found == commands_.end()) return reply.Fail("unknown command \"" + arguments[0] + "\"");
    return reply.Ok(Describe(found->second));
  }
  Json list = JsonArray();
  for (const auto& [name, command] : commands_) AddItem(list.get(), Describe(command));
  reply.Ok(std::move(list));
}

void CommandTable::Execute(std::string_view line, const Reply& reply) const {
  Words words(line);
  const std::optional<std::string> name = words.Take();
  if (!name || name->empty()) return reply.Fail("no command; try \"help\"");
  const auto found = commands_.find(*name);
  if (found == commands_.end()) return reply.Fail("unknown command \"" + *name + "\"; try \"help\"");
  const Command& command = found->second;

  Arguments arguments;
  while (!words.empty()) {
    if (command.rest_of_line && arguments.size() + 1 == command.max_arguments) {
      arguments.emplace_back(words.rest());
      break;
    }
    std::optional<std::string> word = words.Take();
    if (!word) return reply.Fail("a quote is not closed");
    arguments.push_back(std::move(*word));
  }
  if (arguments.size() < command.min_arguments || arguments.size() > command.max_arguments) {
    return reply.Fail("usage: " + command.name + " " + command.usage);
  }
  try {
    command.handler(arguments, reply);
  } catch (const std::exception& error) {
    reply.Fail(error.what());
  }
}

}  // namespace zem::sim
