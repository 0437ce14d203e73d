#include "ctl/timeline.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <new>
#include <vector>

#include "ctl/screen.h"

namespace zem::ctl {
namespace {

constexpr const char* kFailed = "failed";
constexpr const char* kUnderWay = "under way";
constexpr size_t kIndent = 2;
constexpr size_t kMostKeys = 8;
constexpr double kDeepest = 64;

Colour ColourOf(const std::string& state) {
  if (state == kFailed) return Colour::kBad;
  return state == kUnderWay ? Colour::kWarning : Colour::kGood;
}

std::string StepText(const Json& step) {
  std::string text(kIndent * static_cast<size_t>(std::clamp(step["depth"].number(), 0.0, kDeepest)), ' ');
  text += step["name"].text();
  if (const std::string detail = step["detail"].text(); !detail.empty()) text += " " + detail;
  if (const std::string result = step["result"].text(); !result.empty()) text += " -> " + result;
  return text;
}

std::string Begun(const Json& operation) {
  std::string text = operation["begun"].text();
  for (char& c : text) c = c == 'T' || c == 'Z' ? ' ' : c;
  return text + "UTC";
}

class Events {
 public:
  Events() : root_(cJSON_CreateObject(), &cJSON_Delete) {
    list_ = cJSON_AddArrayToObject(Checked(root_.get()), "traceEvents");
    Checked(cJSON_AddStringToObject(root_.get(), "displayTimeUnit", "ms"));
  }

  /// An event with the members that all have; the caller adds the others.
  cJSON* Add(const char* phase, const std::string& name, int process, int thread) {
    cJSON* const event = Checked(cJSON_CreateObject());
    cJSON_AddItemToArray(list_, event);
    Checked(cJSON_AddStringToObject(event, "ph", phase));
    Checked(cJSON_AddStringToObject(event, "name", name.c_str()));
    Checked(cJSON_AddNumberToObject(event, "pid", process));
    Checked(cJSON_AddNumberToObject(event, "tid", thread));
    return event;
  }
  /// How the viewers learn the name of a process or a thread.
  void Name(const char* what, const std::string& name, int process, int thread) {
    cJSON* const arguments = Checked(cJSON_AddObjectToObject(Add("M", what, process, thread), "args"));
    Checked(cJSON_AddStringToObject(arguments, "name", name.c_str()));
  }

  std::string Text() const {
    const std::unique_ptr<char, void (*)(void*)> text(cJSON_PrintUnformatted(root_.get()), &cJSON_free);
    if (text == nullptr) throw std::bad_alloc();
    return text.get();
  }

  static cJSON* Checked(cJSON* value) {
    if (value == nullptr) throw std::bad_alloc();
    return value;
  }

 private:
  std::unique_ptr<cJSON, void (*)(cJSON*)> root_;
  cJSON* list_;
};

void AddText(cJSON* arguments, const Json& from, const char* name) {
  const std::string text = from[name].text();
  if (!text.empty()) Events::Checked(cJSON_AddStringToObject(arguments, name, text.c_str()));
}

// The rows of one thread: viewers want the bars of a row to lie within each other or apart.  A wait began
// while the thread was at other work, so it may need a row of its own.
class Rows {
 public:
  Rows(Events& events, int process) : events_(events), process_(process) {}

  /// The row for a bar; `took` is cut by what the rounding of its times adds.  Bars come by their start.
  int Place(const std::string& thread, double start, double* took) {
    std::vector<Row>& rows = threads_[thread];
    for (Row& row : rows) {
      while (!row.ends.empty() && row.ends.back() <= start) row.ends.pop_back();
      if (!row.ends.empty() && start + *took > row.ends.back() + kRounding) continue;
      if (!row.ends.empty()) *took = std::min(*took, row.ends.back() - start);
      row.ends.push_back(start + *took);
      return row.number;
    }
    rows.push_back({++last_, {start + *took}});
    const std::string more = rows.size() == 1 ? "" : " (" + std::to_string(rows.size()) + ")";
    events_.Name("thread_name", thread + more, process_, last_);
    return last_;
  }

 private:
  static constexpr double kRounding = 2;  // microseconds
  struct Row {
    int number;
    std::vector<double> ends;  // of the bars around the next one, the outermost first
  };
  Events& events_;
  const int process_;
  int last_ = 0;
  std::map<std::string, std::vector<Row>> threads_;
};

// `thread` 0 is the operation as a whole.
void AddBar(Events& events, const std::string& name, int process, int thread, double start, double took,
            const Json& from) {
  cJSON* const event = events.Add("X", name, process, thread);
  Events::Checked(cJSON_AddNumberToObject(event, "ts", start));
  Events::Checked(cJSON_AddNumberToObject(event, "dur", took));
  cJSON* const arguments = Events::Checked(cJSON_AddObjectToObject(event, "args"));
  for (const char* const member : {"detail", "result", "state", "error"}) AddText(arguments, from, member);
  if (from["failed"].is_true() || from["state"].text() == kFailed) {
    Events::Checked(cJSON_AddStringToObject(event, "cname", "terrible"));
  }
}

}  // namespace

std::string TookText(double micros) {
  if (micros < 0) return kUnderWay;
  struct Unit {
    double size;
    const char* format;
  };
  constexpr std::array kUnits = {Unit{1e6, "%.2f s"}, Unit{1e3, "%.2f ms"}, Unit{1, "%.0f us"}};
  for (const Unit& unit : kUnits) {
    if (micros < unit.size && unit.size > 1) continue;
    std::array<char, 32> text;
    std::snprintf(text.data(), text.size(), unit.format, micros / unit.size);
    return text.data();
  }
  return {};
}

void ShowTimeline(Screen& screen, const Json& operation) {
  const std::string state = operation["state"].text();
  screen.Line(operation["kind"].text() + ": " + operation["what"].text());
  screen.Line("  " + state + (state == kUnderWay ? " for " : " after ") +
                  TookText(operation["duration_us"].number()) + ", begun " + Begun(operation) +
                  (operation["earlier_life"].is_true() ? ", in an earlier life of the daemon" : ""),
              ColourOf(state));
  if (const std::string error = operation["error"].text(); !error.empty()) {
    screen.Line("  error: " + error, Colour::kBad);
  }
  std::string keys;
  size_t count = 0;
  for (const Json& key : operation["keys"].elements()) {
    if (count++ == kMostKeys) break;
    keys += (keys.empty() ? "" : ", ") + key.text();
  }
  if (count > kMostKeys) keys += " and " + std::to_string(operation["keys"].size() - kMostKeys) + " more";
  if (!keys.empty()) screen.Line("  of " + keys, Colour::kFaint);
  std::vector<Screen::Row> rows;
  for (const Json& step : operation["steps"].elements()) {
    const bool failed = step["failed"].is_true();
    rows.push_back(
        {{TookText(step["start_us"].number() < 0 ? 0 : step["start_us"].number()), Colour::kFaint, true},
         {TookText(step["duration_us"].number()), Colour::kNone, true},
         {step["thread"].text(), Colour::kFaint},
         {StepText(step), failed ? Colour::kBad : Colour::kNone}});
  }
  screen.Line("");
  screen.Table({"AT", "TOOK", "THREAD", "STEP"}, rows);
  if (const double left_out = operation["left_out"].number(); left_out > 0) {
    screen.Line("and " + operation["left_out"].text() + " steps for which there was no room", Colour::kFaint);
  }
}

void ShowOperations(Screen& screen, const Json& operations) {
  std::vector<Screen::Row> rows;
  for (const Json& operation : operations.elements()) {
    const std::string state = operation["state"].text();
    const std::vector<Json> keys = operation["keys"].elements();
    rows.push_back({{Begun(operation), Colour::kFaint},
                    {operation["kind"].text()},
                    {keys.empty() ? "" : keys.front().text()},
                    {operation["what"].text()},
                    {TookText(operation["duration_us"].number()), Colour::kNone, true},
                    {state, ColourOf(state)},
                    {operation["error"].text(), Colour::kBad}});
  }
  if (rows.empty()) return screen.Line("The daemon knows of no operation.", Colour::kFaint);
  screen.Table({"BEGUN", "KIND", "ID", "WHAT", "TOOK", "STATE", "ERROR"}, rows);
}

std::string TraceEvents(const Json& operations) {
  Events events;
  int process = 0;
  for (const Json& operation : operations.elements()) {
    ++process;
    const double begun = operation["begun_us"].number();
    const std::string title = operation["kind"].text() + ": " + operation["what"].text();
    events.Name("process_name", title, process, 0);
    events.Name("thread_name", "operation", process, 0);
    const double lasted = operation["duration_us"].number();
    AddBar(events, title, process, 0, begun, lasted, operation);
    Rows rows(events, process);
    for (const Json& step : operation["steps"].elements()) {
      const double start = step["start_us"].number();
      double took = step["duration_us"].number();
      if (took < 0) took = std::max(0.0, lasted - start);
      const int row = rows.Place(step["thread"].text(), start, &took);
      AddBar(events, step["name"].text(), process, row, begun + start, took, step);
    }
  }
  return events.Text();
}

}  // namespace zem::ctl
