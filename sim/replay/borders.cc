#include "sim/replay/borders.h"

#include <algorithm>
#include <set>
#include <utility>

#include "platform/core/thread.h"
#include "sim/scenario/control_client.h"

namespace zem::sim {
namespace {

constexpr std::string_view kQuestionGroup = ", questions";
constexpr std::string_view kStateGroup = ", at the end";
// Their bytes are compared as they are.
constexpr std::string_view kFileGroup = "file ";

bool HasOrder(const std::string& group) {
  return !group.ends_with(kQuestionGroup) && !group.ends_with(kStateGroup);
}

// Of the machine's time.
constexpr auto kRest = std::chrono::seconds(1);

struct Line {
  std::string alike;
  const std::string* text;
};
using Lines = std::vector<Line>;

Lines LinesOf(const Borders::Groups& groups, const std::string& group, const Likeness& likeness) {
  Lines lines;
  const auto found = groups.find(group);
  if (found == groups.end()) return lines;
  for (const std::string& text : found->second)
    lines.push_back({group.starts_with(kFileGroup) ? text : likeness.Of(text), &text});
  // Lines that differ in nothing but names that were made up are told once, too.
  if (group.ends_with(kQuestionGroup)) {
    std::ranges::stable_sort(lines, {}, &Line::alike);
    const auto again = std::ranges::unique(lines, {}, &Line::alike);
    lines.erase(again.begin(), again.end());
  }
  return lines;
}

// What stands before the answer of a call; empty for what is none.
std::string QuestionIn(const std::string& alike) {
  const size_t arrow = alike.find(" -> ");
  return arrow == std::string::npos ? std::string() : alike.substr(0, arrow);
}

// A question that was asked in one life alone shows the pace, and so does an answer that one life got besides
// one that both got: it asked at one more moment.  A question that got no answer alike shows the daemon.
void KeepDisputed(Lines* left, Lines* right) {
  std::map<std::string, std::set<std::string>> answers;  // in the right one
  for (const Line& line : *right) answers[QuestionIn(line.alike)].insert(line.alike);
  std::map<std::string, bool> agreed;
  for (const Line& line : *left) {
    const auto asked = answers.find(QuestionIn(line.alike));
    if (asked != answers.end()) agreed[asked->first] |= asked->second.contains(line.alike);
  }
  for (Lines* const lines : {left, right}) {
    std::erase_if(*lines, [&](const Line& line) {
      const std::string question = QuestionIn(line.alike);
      const auto both = agreed.find(question);
      return !question.empty() && (both == agreed.end() || both->second);
    });
  }
}

// The lines of `left` that `right` has not as often.
std::vector<std::string> Missing(const Lines& left, const Lines& right) {
  std::map<std::string, long> counts;
  for (const Line& line : right) ++counts[line.alike];
  std::vector<std::string> missing;
  for (const Line& line : left) {
    if (--counts[line.alike] < 0) missing.push_back(*line.text);
  }
  return missing;
}

}  // namespace

bool DaemonRuns(ControlClient& node) {
  return node.Execute("daemon/state").find("\"running\":true") != std::string::npos;
}

void Borders::Read(BorderKind kind, const std::string& group, std::string line) {
  switch (kind) {
    case BorderKind::kAction:
      return Add(group, std::move(line));
    case BorderKind::kState:
      return Add(group + std::string(kStateGroup), std::move(line));
    case BorderKind::kQuestion: {
      std::vector<std::string>& lines = groups_[group + std::string(kQuestionGroup)];
      if (std::ranges::find(lines, line) == lines.end()) lines.push_back(std::move(line));
    }
  }
}

void Borders::Take(ControlClient& node) {
  ReadBorders(node, false, [this](BorderKind kind, const std::string& group, std::string line) {
    Read(kind, group, std::move(line));
  });
}

void Borders::TakeAtRest(ControlClient& node, Duration most) {
  const TimePoint latest = Clock::Process().Now() + most;
  Borders taken = *this;
  taken.Take(node);
  for (bool rests = false; !rests && Clock::Process().Now() < latest;) {
    SleepFor(kRest);
    Borders later = *this;
    later.Take(node);
    rests = taken.Compare(later).empty();
    taken = std::move(later);
  }
  *this = std::move(taken);
}

void Borders::TakeForgotten(ControlClient& node) {
  ReadLibraryCalls(node, [this](BorderKind kind, const std::string& group, std::string line) {
    Read(kind, group, std::move(line));
  });
}

Borders::Counts Borders::Actions(ControlClient& node) const {
  Counts counts;
  for (const auto& [group, lines] : groups_) {
    if (HasOrder(group)) counts[group] += lines.size();
  }
  ReadBorders(node, true, [&](BorderKind, const std::string& group, const std::string&) { ++counts[group]; });
  return counts;
}

void Borders::Rename(const std::string& name, const std::string& other) {
  for (auto& [group, lines] : groups_) {
    for (std::string& line : lines) {
      for (size_t at = line.find(name); at != std::string::npos; at = line.find(name, at + other.size()))
        line.replace(at, name.size(), other);
    }
  }
}

std::vector<Difference> Borders::Compare(const Borders& other, Likeness likeness) const {
  Groups all = groups_;
  for (const auto& [name, lines] : groups_) {
    for (const std::string& line : lines) likeness.MentionInFirst(line);
  }
  for (const auto& [name, lines] : other.groups_) {
    all.try_emplace(name);
    for (const std::string& line : lines) likeness.MentionInSecond(line);
  }
  std::vector<Difference> differences;
  for (const auto& [name, unused] : all) {
    Lines left = LinesOf(groups_, name, likeness);
    Lines right = LinesOf(other.groups_, name, likeness);
    if (name.ends_with(kQuestionGroup)) KeepDisputed(&left, &right);
    const std::vector<std::string> gone = Missing(left, right);
    const std::vector<std::string> added = Missing(right, left);
    for (const std::string& line : gone) differences.push_back({name, '-', line});
    for (const std::string& line : added) differences.push_back({name, '+', line});
    if (gone.empty() && added.empty() && HasOrder(name) &&
        !std::ranges::equal(left, right, {}, &Line::alike, &Line::alike))
      differences.push_back({name, '~', {}});
  }
  return differences;
}

}  // namespace zem::sim
