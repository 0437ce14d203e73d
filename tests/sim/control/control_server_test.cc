#include "sim/control/control_server.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <system_error>

#include "platform/core/unique_fd.h"
#include "platform/provider/provider.h"
#include "sim/control/command_table.h"
#include "tests/support/temp_dir.h"

namespace zem::sim {
namespace {

class ControlServerTest : public testing::Test {
 protected:
  ControlServerTest() {
    table.Register(
        {"echo", "WORD...", "Says the words.", 1, 3, [](const Arguments& arguments, const Reply& reply) {
           Json list = JsonArray();
           for (const std::string& word : arguments) AddItem(list.get(), word);
           reply.Ok(std::move(list));
         }});
    table.Register({"raw", "WORD REST", "Says the rest.", 2, 2,
                    [](const Arguments& arguments, const Reply& reply) { reply.Fail(arguments[1]); }, true});
    table.Register({"later", "", "Answers at \"now\".", 0, 0,
                    [this](const Arguments&, const Reply& reply) { waiting.push_back(reply); }});
    table.Register({"now", "", "", 0, 0, [this](const Arguments&, const Reply& reply) {
                      for (const Reply& other : waiting) other.Ok();
                      reply.Ok();
                    }});
    table.Register({"forget", "", "", 0, 0, [](const Arguments&, const Reply&) {}});
    table.Register(
        {"throw", "", "", 0, 0, [](const Arguments&, const Reply&) { throw std::runtime_error("thrown"); }});
  }

  std::string Run(const std::string& line) {
    std::string answer;
    table.Execute(line, Reply([&answer](Json json) { answer = JsonText(json.get()); }));
    return answer;
  }

  UniqueFd Connect() {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return fd;
  }
  static void Send(int fd, const std::string& text) {
    size_t sent = 0;
    while (sent < text.size()) {
      const ssize_t n = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) return;
      sent += static_cast<size_t>(n);
    }
  }
  // Up to and without the newline; empty at the end.
  static std::string ReadLine(int fd) {
    std::string line;
    char c;
    while (read(fd, &c, 1) == 1 && c != '\n') line += c;
    return line;
  }

  zem::test::TempDir dir;
  const std::string path = dir.Path("control");
  CommandTable table;
  std::vector<Reply> waiting;
  AsioZemProvider provider;
};

TEST_F(ControlServerTest, LinesAreReadAsShellsReadThem) {
  const std::pair<const char*, const char*> cases[] = {
      {R"(echo a  'b c' "d \"e\\")", R"({"ok":true,"result":["a","b c","d \"e\\"]})"},
      {R"(raw x id: "a b"  text: 'c' )", R"({"ok":false,"error":"id: \"a b\"  text: 'c'"})"},
      {"echo 'open", R"({"ok":false,"error":"a quote is not closed"})"},
      {"echo", R"({"ok":false,"error":"usage: echo WORD..."})"},
      {"echo a b c d", R"({"ok":false,"error":"usage: echo WORD..."})"},
      {"nothing", R"({"ok":false,"error":"unknown command \"nothing\"; try \"help\""})"},
      {"  ", R"({"ok":false,"error":"no command; try \"help\""})"},
      {"throw", R"({"ok":false,"error":"thrown"})"},
      {"forget", R"({"ok":false,"error":"the command ended without an answer"})"},
      {"help echo",
       R"({"ok":true,"result":{"command":"echo","usage":"echo WORD...","help":"Says the words."}})"},
  };
  for (const auto& [line, answer] : cases) EXPECT_EQ(Run(line), answer);
  EXPECT_THAT(Run("help"), testing::HasSubstr("Says the rest."));
  EXPECT_THROW(table.Register({"echo", "", "", 0, 0, nullptr}), std::logic_error);
}

TEST_F(ControlServerTest, ClientsAreServedApartAndInTheirOrder) {
  ControlServer server(provider, table, path);
  provider.RunAsync(1);
  const UniqueFd first = Connect();
  const UniqueFd second = Connect();
  Send(first.get(), "later\necho after\n");
  Send(second.get(), "echo one\n\nec");
  EXPECT_EQ(ReadLine(second.get()), R"({"ok":true,"result":["one"]})");
  Send(second.get(), "ho two\nnow\n");
  EXPECT_EQ(ReadLine(second.get()), R"({"ok":true,"result":["two"]})");
  EXPECT_EQ(ReadLine(second.get()), R"({"ok":true})");
  EXPECT_EQ(ReadLine(first.get()), R"({"ok":true})");
  EXPECT_EQ(ReadLine(first.get()), R"({"ok":true,"result":["after"]})");
  // A script that sends all and shuts its side down still gets its answers.
  Send(second.get(), "echo x\necho y");
  shutdown(second.get(), SHUT_WR);
  EXPECT_EQ(ReadLine(second.get()), R"({"ok":true,"result":["x"]})");
  EXPECT_EQ(ReadLine(second.get()), R"({"ok":true,"result":["y"]})");
  EXPECT_EQ(ReadLine(second.get()), "");
  provider.StopAndWait(true);
}

TEST_F(ControlServerTest, EndlessLinesEndTheirClientOnly) {
  ControlServer server(provider, table, path);
  provider.RunAsync(1);
  const UniqueFd greedy = Connect();
  const UniqueFd other = Connect();
  Send(greedy.get(), std::string(ControlServer::kMaxLine + 5000, 'x'));
  EXPECT_EQ(ReadLine(greedy.get()), R"({"ok":false,"error":"the line is longer than 1 MiB"})");
  EXPECT_EQ(ReadLine(greedy.get()), "");
  Send(other.get(), std::string(100000, '\n') + "echo fine\n");
  EXPECT_EQ(ReadLine(other.get()), R"({"ok":true,"result":["fine"]})");
  provider.StopAndWait(true);
}

TEST_F(ControlServerTest, OnlyADeadSocketIsReplaced) {
  {
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  ControlServer server(provider, table, path);
  EXPECT_THROW(ControlServer(provider, table, path), std::system_error);
  EXPECT_THROW(ControlServer(provider, table, dir.Write("file", "kept")), std::system_error);
  EXPECT_EQ(dir.Read("file"), "kept");
}

}  // namespace
}  // namespace zem::sim
