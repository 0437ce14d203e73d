#include "app/zema/resync/resync_reply.h"

#include "framework/log/log.h"

namespace zem::zema {
namespace {

constexpr LogSource kLog{"tarvik", "zema"};
constexpr const char* kTag = "ResyncThread";

constexpr std::string_view kNothing = "ok";
constexpr std::string_view kError = "error";
constexpr size_t kLongestShown = 512;

std::vector<std::string_view> Split(std::string_view text, char separator, size_t most) {
  std::vector<std::string_view> parts;
  for (size_t begin = 0; parts.size() <= most;) {
    const size_t end = text.find(separator, begin);
    parts.push_back(text.substr(begin, end - begin));
    if (end == std::string_view::npos) break;
    begin = end + 1;
  }
  return parts;
}

std::string Shown(std::string_view text) { return std::string(text.substr(0, kLongestShown)); }

// The positions of a command's fields among its tokens.
struct Form {
  std::string_view word;
  ResyncCommand::Operation operation;
  size_t fewest;
  size_t most;
  size_t ls;
  size_t gcf_path;
  size_t port;
};
constexpr Form kForms[] = {
    {"attach", ResyncCommand::Operation::kAttach, 4, 5, 2, 3, 4},
    {"detach", ResyncCommand::Operation::kDetach, 5, 5, 3, 4, 2},
};
constexpr size_t kVif = 1;

void TellWrongCount(ResyncCommand::Operation operation, std::string_view command) {
  if (operation == ResyncCommand::Operation::kAttach) {
    ZLOG_ERROR("42042", "[%s] invaild attach cmd [%s], 4 or 5 tokens expected", kTag, Shown(command).c_str());
  } else {
    ZLOG_ERROR("42043", "[%s] invaild detach cmd [%s], 5 tokens expected", kTag, Shown(command).c_str());
  }
}

}  // namespace

ResyncReply::ResyncReply(std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
  if (text.empty() || text.substr(0, kError.size()) == kError) return;
  if (text == kNothing) {
    kind_ = Kind::kNothingToDo;
    return;
  }
  commands_ = Split(text, ',', kMostCommands);
  if (commands_.size() > kMostCommands) {
    commands_.clear();
    return;
  }
  kind_ = Kind::kCommands;
}

std::optional<ResyncCommand> ResyncReply::Parse(std::string_view command) {
  const std::vector<std::string_view> tokens = Split(command, '|', 16);
  if (tokens.size() < 2) {
    ZLOG_ERROR("42040", "[%s] error reply: [%s]", kTag, Shown(command).c_str());
    return std::nullopt;
  }
  for (const Form& form : kForms) {
    if (tokens[0] != form.word) continue;
    if (tokens.size() < form.fewest || tokens.size() > form.most) {
      TellWrongCount(form.operation, command);
      return std::nullopt;
    }
    ResyncCommand parsed;
    parsed.operation = form.operation;
    parsed.vif_id = tokens[kVif];
    parsed.ls_id = tokens[form.ls];
    parsed.gcf_path = tokens[form.gcf_path];
    if (form.port < tokens.size()) parsed.port_id = tokens[form.port];
    parsed.text = command;
    return parsed;
  }
  return std::nullopt;
}

}  // namespace zem::zema
