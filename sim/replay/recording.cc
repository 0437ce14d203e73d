#include "sim/replay/recording.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "sim/control/json.h"

namespace zem::sim {
namespace {

constexpr const char* kKind = "zem-node recording";
constexpr int kVersion = 3;
constexpr int kFastest = 100;
constexpr size_t kLongestLine = size_t{64} * 1024 * 1024;
constexpr int64_t kLongestMs = int64_t{31} * 24 * 3600 * 1000;

std::string TextAt(const cJSON* object, const char* name) {
  const cJSON* const member = cJSON_GetObjectItemCaseSensitive(object, name);
  return cJSON_IsString(member) ? member->valuestring : "";
}

// -1 for what is no number of the range.
int64_t NumberOf(const cJSON* member, int64_t most) {
  const bool good =
      cJSON_IsNumber(member) && member->valuedouble >= 0 && member->valuedouble <= static_cast<double>(most);
  return good ? static_cast<int64_t>(member->valuedouble) : -1;
}

int64_t NumberAt(const cJSON* object, const char* name, int64_t most) {
  return NumberOf(cJSON_GetObjectItemCaseSensitive(object, name), most);
}

// False at the end; a file without newlines must not fill the memory.
bool NextLine(std::istream& in, std::string* line) {
  line->clear();
  std::streambuf& bytes = *in.rdbuf();
  for (int c = bytes.sbumpc(); c != '\n'; c = bytes.sbumpc()) {
    if (c == std::char_traits<char>::eof()) return !line->empty();
    if (line->size() == kLongestLine) throw std::runtime_error("a line is too long");
    line->push_back(static_cast<char>(c));
  }
  return true;
}

Recording::Event ReadEvent(const cJSON* line) {
  Recording::Event event;
  event.at_ms = NumberAt(line, "at_ms", kLongestMs);
  if (event.at_ms < 0) throw std::runtime_error("\"at_ms\" is no time");
  event.command = TextAt(line, "command");
  // It would be two commands on the node's socket.
  if (event.command.find('\n') != std::string::npos) throw std::runtime_error("a command has one line");
  event.answer = TextAt(line, "answer");
  event.awaited = cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(line, "awaited")) != 0;
  event.daemon_ran = !cJSON_IsFalse(cJSON_GetObjectItemCaseSensitive(line, "daemon_ran"));
  const cJSON* count = nullptr;
  cJSON_ArrayForEach(count, cJSON_GetObjectItemCaseSensitive(line, "seen")) {
    const int64_t number = NumberOf(count, INT32_MAX);
    if (number < 0 || count->string == nullptr) throw std::runtime_error("\"seen\" has no counts");
    event.seen[count->string] = static_cast<size_t>(number);
  }
  return event;
}

std::string TextOf(const Recording& recording) {
  std::string text;
  int64_t lines = 0;
  const auto write = [&](const Json& line) {
    text += JsonText(line.get()) + "\n";
    ++lines;
  };
  Json head = JsonObject();
  AddMember(head.get(), "kind", kKind);
  AddMember(head.get(), "version", kVersion);
  AddMember(head.get(), "clock_factor", recording.clock_factor);
  AddMember(head.get(), "daemon_options", recording.daemon_options);
  AddMember(head.get(), "realization_options", recording.realization_options);
  AddMember(head.get(), "issue", recording.issue);
  AddMember(head.get(), "seed", recording.seed);
  AddMember(head.get(), "daemon_started", recording.daemon_started);
  write(head);
  for (const Recording::Event& event : recording.events) {
    Json line = JsonObject();
    AddMember(line.get(), "at_ms", event.at_ms);
    AddMember(line.get(), "command", event.command);
    AddMember(line.get(), "answer", event.answer);
    AddMember(line.get(), "awaited", event.awaited);
    if (!event.daemon_ran) AddMember(line.get(), "daemon_ran", false);
    if (!event.seen.empty()) {
      Json seen = JsonObject();
      for (const auto& [group, count] : event.seen)
        AddMember(seen.get(), group.c_str(), static_cast<uint64_t>(count));
      AddMember(line.get(), "seen", std::move(seen));
    }
    write(line);
  }
  for (const auto& [group, texts] : recording.borders.groups()) {
    for (const std::string& text : texts) {
      Json line = JsonObject();
      AddMember(line.get(), "border", group);
      AddMember(line.get(), "line", text);
      write(line);
    }
  }
  Json end = JsonObject();
  AddMember(end.get(), "end", lines);
  write(end);
  return text;
}

}  // namespace

Recording::Draft::Draft(std::string path) : path_(std::move(path)), draft_(path_ + ".tmp") {
  file_.Reset(::open(draft_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (file_.get() < 0) throw std::runtime_error(draft_ + ": " + std::strerror(errno));
}

Recording::Draft::~Draft() {
  if (file_.get() >= 0) ::unlink(draft_.c_str());
}

void Recording::Draft::Finish(const Recording& recording) {
  std::string text = TextOf(recording);
  for (std::string_view rest = text; !rest.empty();) {
    const ssize_t written = ::write(file_.get(), rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) throw std::runtime_error(draft_ + ": " + std::strerror(errno));
    rest.remove_prefix(static_cast<size_t>(written));
  }
  if (::fsync(file_.get()) != 0 || std::rename(draft_.c_str(), path_.c_str()) != 0)
    throw std::runtime_error(path_ + ": " + std::strerror(errno));
  file_.Reset();
}

Recording Recording::Read(const std::string& path) {
  std::ifstream in(path);
  std::string text;
  if (!in || !NextLine(in, &text)) throw std::runtime_error(path + " cannot be read");
  const Json head(cJSON_ParseWithLength(text.data(), text.size()));
  if (TextAt(head.get(), "kind") != kKind || NumberAt(head.get(), "version", INT32_MAX) != kVersion) {
    throw std::runtime_error(path + " is no recording of version " + std::to_string(kVersion));
  }
  Recording recording;
  recording.clock_factor = static_cast<int>(NumberAt(head.get(), "clock_factor", kFastest));
  if (recording.clock_factor < 1) throw std::runtime_error(path + " has no clock factor");
  recording.daemon_options = TextAt(head.get(), "daemon_options");
  recording.realization_options = TextAt(head.get(), "realization_options");
  recording.issue = TextAt(head.get(), "issue");
  recording.seed = TextAt(head.get(), "seed");
  recording.daemon_started =
      cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(head.get(), "daemon_started")) != 0;
  for (int64_t number = 2;; ++number) {
    try {
      if (!NextLine(in, &text)) break;
      const Json line(cJSON_ParseWithLength(text.data(), text.size()));
      if (const std::string border = TextAt(line.get(), "border"); !border.empty()) {
        recording.borders.Add(border, TextAt(line.get(), "line"));
      } else if (!TextAt(line.get(), "command").empty()) {
        recording.events.push_back(ReadEvent(line.get()));
      } else if (NumberAt(line.get(), "end", INT32_MAX) == number - 1) {
        if (NextLine(in, &text)) throw std::runtime_error("something stands behind the end");
        return recording;
      } else if (cJSON_HasObjectItem(line.get(), "end") != 0) {
        throw std::runtime_error("the end counts another number of lines");
      } else {
        throw std::runtime_error("neither a command nor a border");
      }
    } catch (const std::runtime_error& error) {
      throw std::runtime_error(path + ":" + std::to_string(number) + ": " + error.what());
    }
  }
  throw std::runtime_error(path + " is cut off: its last line is missing");
}

}  // namespace zem::sim
