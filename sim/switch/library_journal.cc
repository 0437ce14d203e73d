#include "sim/switch/library_journal.h"

#include <unistd.h>

#include <algorithm>

#include "sim/switch/tree/live_count.h"
#include "sim/switch/tree/state_tree.h"

namespace zem::sim {
namespace {

std::vector<std::string> Lines(const std::string& path, std::string_view part) {
  std::vector<std::string> lines;
  const std::string text = tree::ReadFile(path).value_or("");
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    std::string line = text.substr(at, end - at);
    if (line.find(part) != std::string::npos) lines.push_back(std::move(line));
    at = end + 1;
  }
  return lines;
}

}  // namespace

std::vector<std::string> LibraryJournal::Calls(std::string_view part) const {
  return Lines(tree::CallsFile(), part);
}

std::vector<std::string> LibraryJournal::Violations() const { return Lines(tree::ViolationsFile(), {}); }

std::vector<std::string> LibraryJournal::Live() const {
  std::vector<std::string> lines;
  for (const LiveObjects& objects : ReadLiveObjects()) {
    lines.push_back(objects.kind + ": " + std::to_string(objects.count) + " of process " +
                    std::to_string(objects.pid));
  }
  return lines;
}

void LibraryJournal::Clear() {
  // Truncated and not removed, because the libraries have them open.
  for (const std::string& path : {tree::CallsFile(), tree::ViolationsFile()}) {
    if (tree::Exists(path) && ::truncate(path.c_str(), 0) != 0) static_cast<void>(tree::RemoveFile(path));
  }
}

}  // namespace zem::sim
