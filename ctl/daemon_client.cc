#include "ctl/daemon_client.h"

#include <cstdlib>
#include <memory>

#include "ctl/outcome.h"
#include "ctl/socket_call.h"

namespace zem::ctl {

std::string DaemonClient::Ask(const std::string& command, const std::vector<std::string>& arguments) const {
  std::vector<const char*> words;
  for (const std::string& argument : arguments) words.push_back(argument.c_str());
  char* raw = nullptr;
  const socket_call_end end =
      socket_call(path_.c_str(), timeout_.count(), command.c_str(), words.data(), words.size(), &raw);
  const std::unique_ptr<char, decltype(&std::free)> owned(raw, &std::free);
  std::string text = raw == nullptr ? "" : raw;
  // The protocol ends what it carries with a line's end.
  while (!text.empty() && text.back() == '\n') text.pop_back();
  switch (end) {
    case SOCKET_CALL_ANSWERED:
      return text;
    case SOCKET_CALL_REFUSED:
      throw Failure(kDegraded, text);
    case SOCKET_CALL_LATE:
      throw Failure(kNoDaemon, "the daemon did not answer \"" + command + "\" on " + path_ + " within " +
                                   std::to_string(timeout_.count()) + " ms");
    case SOCKET_CALL_FAILED:
      break;
  }
  throw Failure(kNoDaemon, "no daemon answers on " + path_ + ": " + text);
}

Json DaemonClient::AskJson(const std::string& command, const std::vector<std::string>& arguments) const {
  const std::string text = Ask(command, arguments);
  Json json = Json::Parse(text);
  if (!json)
    throw Failure(kDegraded, "the answer to \"" + command + "\" is not JSON: " + text.substr(0, 200));
  return json;
}

}  // namespace zem::ctl
