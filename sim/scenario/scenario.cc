#include "sim/scenario/scenario.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <boost/regex.hpp>
#include <charconv>
#include <iomanip>
#include <istream>
#include <optional>
#include <ostream>
#include <regex>

#include "platform/core/clock.h"
#include "platform/core/thread.h"
#include "sim/control/json.h"
#include "sim/scenario/control_client.h"
#include "sim/scenario/patience.h"

namespace zem::sim {
namespace {

constexpr auto kPollInterval = std::chrono::milliseconds(100);
constexpr double kLogPatience = 2;  // seconds; log lines arrive on a socket of their own and may be late
constexpr double kLeftPatience = 10;
constexpr int kLogTail = 40;
constexpr size_t kMaxShown = 2000;

// The end of a wait for something that has to come true.
TimePoint EndOfPatience(double seconds) {
  return Clock::Process().Now() + Duration(static_cast<int64_t>(Patience(seconds) * 1e9));
}

long long NowNs() { return Clock::Process().Now().time_since_epoch().count(); }

std::string Trim(const std::string& text) {
  const size_t begin = text.find_first_not_of(" \t\r");
  if (begin == std::string::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

bool TakePrefix(std::string* text, std::string_view prefix) {
  if (text->rfind(prefix, 0) != 0) return false;
  *text = Trim(text->substr(prefix.size()));
  return true;
}

// Finds a value by its path, "a.b[2].c".
const cJSON* Find(const cJSON* value, const std::string& path) {
  size_t begin = 0;
  while (value != nullptr && begin < path.size()) {
    if (path[begin] == '.') {
      ++begin;
      continue;
    }
    if (path[begin] == '[') {
      const size_t end = path.find(']', begin);
      if (end == std::string::npos) return nullptr;
      int index = -1;
      std::from_chars(path.data() + begin + 1, path.data() + end, index);
      value = index >= 0 ? cJSON_GetArrayItem(value, index) : nullptr;
      begin = end + 1;
      continue;
    }
    const size_t end = std::min(path.find_first_of(".[", begin), path.size());
    value = cJSON_GetObjectItemCaseSensitive(value, path.substr(begin, end - begin).c_str());
    begin = end;
  }
  return value;
}

std::string Text(const cJSON* value) {
  if (value == nullptr) return "(nothing)";
  if (cJSON_IsString(value)) return value->valuestring;
  return JsonText(value);
}

std::string Shorten(const std::string& text) {
  return text.size() <= kMaxShown ? text : text.substr(0, kMaxShown) + "...";
}

struct Condition {
  std::string path;
  std::string operation;
  std::string value;
  double within = 0;
};

std::optional<Condition> ParseCondition(const std::string& text) {
  static const std::regex form(R"(^(\S+)\s+(==|!=|>=|<=|~)\s+(.*?)(?:\s+within\s+([0-9.]+))?$)");
  std::smatch parts;
  if (!std::regex_match(text, parts, form)) return std::nullopt;
  Condition condition;
  condition.path = parts[1];
  condition.operation = parts[2];
  condition.value = parts[3];
  if (condition.value.size() >= 2 && condition.value.front() == '"' && condition.value.back() == '"') {
    condition.value = condition.value.substr(1, condition.value.size() - 2);
  }
  if (parts[4].matched) condition.within = std::stod(parts[4]);
  return condition;
}

// boost::regex, since std::regex recurses for each character and long answers would overflow the stack.
bool Matches(const std::string& text, const std::string& pattern) {
  return boost::regex_search(text, boost::regex(pattern),
                             boost::match_single_line | boost::match_not_dot_newline);
}

bool Holds(const std::string& found, const std::string& operation, const std::string& wanted) {
  if (operation == "==") return found == wanted;
  if (operation == "!=") return found != wanted;
  if (operation == "~") return Matches(found, wanted);
  double left = 0;
  double right = 0;
  if (std::from_chars(found.data(), found.data() + found.size(), left).ec != std::errc()) return false;
  if (std::from_chars(wanted.data(), wanted.data() + wanted.size(), right).ec != std::errc()) return false;
  return operation == ">=" ? left >= right : left <= right;
}

// Splits "a ; b ; c".
std::vector<std::string> Columns(const std::string& text) {
  std::vector<std::string> columns;
  for (size_t begin = 0; begin <= text.size();) {
    const size_t end = std::min(text.find(';', begin), text.size());
    columns.push_back(Trim(text.substr(begin, end - begin)));
    begin = end + 1;
  }
  return columns;
}

std::string Quote(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') quoted.push_back('\\');
    quoted.push_back(c);
  }
  return quoted + "\"";
}

bool IsOk(const std::string& answer) {
  const Json parsed{cJSON_Parse(answer.c_str())};
  return parsed && cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(parsed.get(), "ok"));
}

}  // namespace

Scenario::Scenario(ControlClient& node, std::ostream& out, ControlClient* second)
    : node_(node), second_(second), out_(out) {}

std::string Scenario::Execute(const std::string& command, bool again) {
  std::string rest = command;
  if (!TakePrefix(&rest, "second ")) return node_.Execute(command, again);
  return second_ != nullptr ? second_->Execute(rest) : R"({"ok":false,"error":"there is no second node"})";
}

bool Scenario::Run(std::istream& lines, const std::string& name) {
  std::vector<Numbered> all;
  int number = 0;
  for (std::string line; std::getline(lines, line);) {
    ++number;
    line = Trim(line);
    if (!line.empty() && line[0] != '#') all.push_back({number, line});
  }
  const Numbered* failed = nullptr;
  if (!Lines(all.data(), all.data() + all.size(), &failed)) {
    out_ << "\n"
         << name << ":" << failed->number << ": " << failed->text << "\n  did not hold: " << problem_ << "\n";
    PrintLogTail();
    return false;
  }
  EndStep();
  if (!NothingIsLeft()) {
    out_ << "\n"
         << name << ": at its end the libraries have not got back: " << problem_ << "\n"
         << std::flush;
    return false;
  }
  out_ << name << ": every line held\n" << std::flush;
  return true;
}

// Waits for a while, because an operation may still be in progress when the last line holds.
bool Scenario::NothingIsLeft() {
  for (const TimePoint end = EndOfPatience(kLeftPatience);;) {
    const Json answer{cJSON_Parse(node_.Execute("switch/live").c_str())};
    const cJSON* const left = answer ? Find(answer.get(), "result") : nullptr;
    if (cJSON_GetArraySize(left) == 0) return true;
    problem_ = Text(left);
    if (Clock::Process().Now() >= end) return false;
    SleepFor(kPollInterval);
  }
}

bool Scenario::Lines(const Numbered* begin, const Numbered* end, const Numbered** failed) {
  for (const Numbered* line = begin; line != end; ++line) {
    *failed = line;
    std::string names = line->text;
    if (!TakePrefix(&names, "each ")) {
      if (Line(line->text)) continue;
      return false;
    }
    const Numbered* const rows = line + 1;
    const Numbered* const body =
        std::find_if(rows, end, [](const Numbered& at) { return at.text[0] != '|'; });
    const Numbered* const done =
        std::find_if(body, end, [](const Numbered& at) { return at.text == "done"; });
    if (done == end || body == rows) {
      problem_ = "rows, lines and \"done\" are missing";
      return false;
    }
    const std::vector<std::string> columns = Columns(names);
    for (const Numbered* row = rows; row != body; ++row) {
      const std::vector<std::string> values = Columns(row->text.substr(1));
      *failed = row;
      if (values.size() != columns.size()) {
        problem_ = "not as many values as names";
        return false;
      }
      for (size_t i = 0; i < columns.size(); ++i) kept_[columns[i]] = values[i];
      if (!Lines(body, done, failed)) {
        problem_ += "\n  in the row " + row->text;
        return false;
      }
    }
    line = done;
  }
  return true;
}

// The daemon's last words tell more than the line that did not hold, and nobody may be there to ask for them.
void Scenario::PrintLogTail() {
  const Json parsed{cJSON_Parse(node_.Execute("log/find . " + std::to_string(kLogTail)).c_str())};
  const cJSON* const lines = parsed ? Find(parsed.get(), "result.lines") : nullptr;
  out_ << "  the end of the log:\n";
  const cJSON* line = nullptr;
  cJSON_ArrayForEach(line, lines) out_ << "    " << Shorten(Text(Find(line, "text"))) << "\n";
  out_ << std::flush;
}

unsigned long long Scenario::LastLogNumber() {
  const Json parsed{cJSON_Parse(node_.Execute("log/find . 1").c_str())};
  const cJSON* const last = Find(parsed.get(), "result.last_number");
  return cJSON_IsNumber(last) ? static_cast<unsigned long long>(last->valuedouble) : 0;
}

bool Scenario::Line(const std::string& text) {
  std::string line = text;
  for (const auto& [name, value] : kept_) {
    const std::string word = "${" + name + "}";
    for (size_t at = line.find(word); at != std::string::npos; at = line.find(word, at + value.size())) {
      line.replace(at, word.size(), value);
    }
  }
  std::string rest = line;
  if (TakePrefix(&rest, "step ")) {
    EndStep();
    step_ = rest;
    step_begin_ns_ = NowNs();
    step_log_ = first_step_ ? 0 : LastLogNumber();
    first_step_ = false;
    out_ << "\n== " << step_ << "\n" << std::flush;
    return true;
  }
  if (TakePrefix(&rest, "expect ")) return Expect(rest);
  if (rest == "show node") {
    if (!Command(rest, Outcome::kOk)) return false;
    const Json parsed{cJSON_Parse(last_answer_.c_str())};
    out_ << Text(Find(parsed.get(), "result")) << std::flush;
    return true;
  }
  if (TakePrefix(&rest, "show ")) return Show(rest);
  if (TakePrefix(&rest, "keep ")) return Keep(rest);
  if (TakePrefix(&rest, "let ")) {
    const size_t end = std::min(rest.find(' '), rest.size());
    kept_[rest.substr(0, end)] = Trim(rest.substr(end));
    return true;
  }
  if (TakePrefix(&rest, "fails ")) return Command(rest, Outcome::kRefusal);
  if (TakePrefix(&rest, "try ")) return Command(rest, Outcome::kAny);
  if (TakePrefix(&rest, "await ")) return Await(rest);
  return Command(line, Outcome::kOk);
}

void Scenario::EndStep() {
  if (step_.empty()) return;
  const double ms = static_cast<double>(NowNs() - step_begin_ns_) / 1e6;
  out_ << "   done in " << std::fixed << std::setprecision(1) << ms << " ms\n" << std::flush;
  step_.clear();
}

bool Scenario::Command(const std::string& line, Outcome wanted, bool again) {
  last_command_ = line;
  const long long begin = NowNs();
  last_answer_ = Execute(line, again);
  const double ms = static_cast<double>(NowNs() - begin) / 1e6;
  out_ << "   > " << line << "   (" << std::fixed << std::setprecision(1) << ms << " ms)\n" << std::flush;
  if (wanted == Outcome::kAny || IsOk(last_answer_) == (wanted == Outcome::kOk)) return true;
  problem_ = Shorten(last_answer_);
  return false;
}

bool Scenario::Await(const std::string& text) {
  double seconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error != std::errc()) {
    problem_ = "not a number of seconds";
    return false;
  }
  const std::string command = Trim(text.substr(static_cast<size_t>(end - text.data())));
  const TimePoint deadline = EndOfPatience(seconds);
  for (bool again = false;; again = true) {
    if (Command(command, Outcome::kOk, again)) return true;
    if (Clock::Process().Now() >= deadline) return false;
    SleepFor(kPollInterval);
  }
}

bool Scenario::Show(const std::string& path) {
  const Json parsed{cJSON_Parse(last_answer_.c_str())};
  // A refused command has only an error text.
  const std::string at = path == "error" && !IsOk(last_answer_) ? path : "result." + path;
  out_ << "     " << path << ": " << Shorten(Text(Find(parsed.get(), at))) << "\n" << std::flush;
  return true;
}

bool Scenario::Keep(const std::string& text) {
  const size_t end = text.find(' ');
  const std::string path = end == std::string::npos ? "" : Trim(text.substr(end));
  const Json parsed{cJSON_Parse(last_answer_.c_str())};
  const cJSON* const value = path.empty() ? nullptr : Find(parsed.get(), "result." + path);
  if (value == nullptr) {
    problem_ = "nothing to keep in " + Shorten(last_answer_);
    return false;
  }
  kept_[text.substr(0, end)] = Text(value);
  return true;
}

bool Scenario::Expect(const std::string& text) {
  std::string rest = text;
  const bool none = TakePrefix(&rest, "no log ~ ");
  if (none) {
    const std::string answer = node_.Execute("log/find " + Quote(rest) + " 1 " + std::to_string(step_log_));
    const Json parsed{cJSON_Parse(answer.c_str())};
    const cJSON* const line = Find(parsed.get(), "result.lines[0].text");
    if (IsOk(answer) && line == nullptr) return true;
    problem_ = Shorten(Text(line));
    return false;
  }
  const bool file = TakePrefix(&rest, "file ");
  const auto condition = ParseCondition(rest);
  if (!condition) {
    problem_ = "not a condition";
    return false;
  }
  if (condition->path == "log" && condition->operation == "~") {
    const double within = Patience(std::max(condition->within, kLogPatience));
    const std::string answer = node_.Execute("log/wait " + Quote(condition->value) + " " +
                                             std::to_string(within) + " " + std::to_string(step_log_));
    const Json parsed{cJSON_Parse(answer.c_str())};
    if (IsOk(answer)) {
      out_ << "     log: " << Shorten(Text(Find(parsed.get(), "result.text"))) << "\n" << std::flush;
      return true;
    }
    problem_ = "no such line since the step began";
    return false;
  }
  const std::string repeated = file ? "file/read " + Quote(condition->path) : last_command_;
  const bool refusal = condition->path == "error";
  const std::string path = file ? "result.text" : (refusal ? "" : "result.") + condition->path;
  const TimePoint deadline = EndOfPatience(condition->within);
  std::string answer = file ? Execute(repeated) : last_answer_;
  for (;;) {
    const Json parsed{cJSON_Parse(answer.c_str())};
    const std::string found = Text(Find(parsed.get(), path));
    if (Holds(found, condition->operation, condition->value)) {
      if (!file) {
        last_answer_ = answer;
        out_ << "     " << condition->path << ": " << Shorten(found) << "\n" << std::flush;
      }
      return true;
    }
    if (Clock::Process().Now() >= deadline) {
      problem_ = "found " + Shorten(found) + "\n  in " + Shorten(answer);
      return false;
    }
    SleepFor(kPollInterval);
    answer = Execute(repeated, true);
  }
}

}  // namespace zem::sim
