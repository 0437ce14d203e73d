// Any process of the host's administrators may write to the command socket: whatever comes, the server
// answers or hangs up, and serves the next client.

#include <signal.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "framework/cli/builtin_commands.h"
#include "framework/cli/cli_server.h"
#include "platform/core/thread.h"
#include "platform/core/unix_socket.h"
#include "platform/metrics/metrics.h"
#include "platform/metrics/queue_gauge.h"
#include "platform/provider/work_group.h"
#include "tests/support/silent_log.h"

namespace {

using namespace zem;
using namespace zem::Tarvik;

class Server {
 public:
  Server() {
    ::signal(SIGPIPE, SIG_IGN);
    zem::test::SilenceLog();
    std::string folder = std::filesystem::temp_directory_path() / "cli_fuzz.XXXXXX";
    if (::mkdtemp(folder.data()) == nullptr) std::abort();
    folder_ = folder;
    group_->Start(1);
    server_ = new CliServer(group_, folder_ + "/cli");
    server_->AddCommands(BuiltinCommands());
    server_->AddCommands(
        {MpaClientCommand([] {
           return std::vector<MpaClientRow>{{"SwitchingVertical", 2, 7}};
         }),
         {"forget", "", 0, CliCommand::kNoLimit, [](const CliArguments&, CliReply) {}},
         {"say", "", 0, CliCommand::kNoLimit, [](const CliArguments& arguments, CliReply reply) {
            reply.Ok(arguments.empty() ? std::string() : arguments.back());
          }}});
    server_->Start();
    while (!Ask(R"({"id":1,"method":"get/loglevel","params":[]})").starts_with("{"))
      SleepFor(std::chrono::milliseconds(1));
  }
  ~Server() {
    server_->Stop();
    group_->Stop();
    std::filesystem::remove_all(folder_);
  }

  // Everything that the server says until it hangs up.
  std::string Ask(std::string_view text) {
    const UniqueFd client = OpenUnixStream();
    std::string answer;
    if (ConnectUnix(client.get(), folder_ + "/cli") != 0) return answer;
    while (!text.empty()) {
      const ssize_t sent =
          Uninterrupted([&] { return ::send(client.get(), text.data(), text.size(), MSG_NOSIGNAL); });
      if (sent <= 0) break;
      text.remove_prefix(static_cast<size_t>(sent));
    }
    ::shutdown(client.get(), SHUT_WR);
    char buffer[4096];
    for (;;) {
      const ssize_t count = Uninterrupted([&] { return ::recv(client.get(), buffer, sizeof(buffer), 0); });
      if (count <= 0) return answer;
      answer.append(buffer, static_cast<size_t>(count));
    }
  }

 private:
  // The fuzzer's own alarm interrupts calls.
  template <class Call>
  static ssize_t Uninterrupted(Call call) {
    ssize_t result = 0;
    do {
      result = call();
    } while (result < 0 && errno == EINTR);
    return result;
  }

  std::string folder_;
  metrics::Registry registry_;
  boost::intrusive_ptr<WorkGroup> group_{new WorkGroup("framework", registry_, WorkGroup::kUnbounded)};
  boost::intrusive_ptr<CliServer> server_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Server server;
  server.Ask({reinterpret_cast<const char*>(data), size});
  // The next client is served, whatever the last one did.
  if (server.Ask(R"({"id":7,"method":"say","params":["still here"]})").find("still here") ==
      std::string::npos) {
    std::abort();
  }
  return 0;
}
